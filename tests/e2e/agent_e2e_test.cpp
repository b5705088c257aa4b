// The real qavel-client, each run in a sandbox of its own, against the protocol peer on 127.0.0.1:
// registration, orders and their answers, the files the agent leaves behind, and every way it ends.
#include <signal.h>

#include <ctime>
#include <filesystem>
#include <functional>
#include <optional>
#include <regex>

#include "tests/e2e/agentTest.h"

namespace {

using agentTest::AgentTest;
using agentTest::kExitedNormally;
using agentTest::kLinkFailure;
using agentTest::kPingWait;
using agentTest::kPlugins;
using agentTest::kWait;
using agentTest::once;

// A stop must not wait for the 40-second pause between keep-alive pings.
constexpr std::chrono::seconds kStopWait{10};

const std::string kStopText = "stop qavel client... SIGTERM: ";
const std::string kAborted = "killed by signal " + std::to_string(SIGABRT);

const std::string kStarting = "STATUS=STARTING             \nREGISTER=NONE               \n";
const std::string kConnecting = "STATUS=CONNECTING           \nREGISTER=NONE               \n";
const std::string kRegistering = "STATUS=REGISTERING          \nREGISTER=NONE               \n";
const std::string kRunning = "STATUS=RUNNING              \nREGISTER=OK                 \n";

// JsonCpp's own text for reading `value` as an integer.
std::string asIntFailure(const Json::Value& value) {
  try {
    (void)value.asInt();
  } catch (const Json::LogicError& e) {
    return e.what();
  }
  return "";
}

TEST_F(AgentTest, RegistersFirstInterfaceBesideLoopbackWhoseFirstAddressIsSet) {
  sandbox_->setKey("NIVO", "ip_command", kPlugins + "/e2e_ip_fixed.sh");
  launch();
  const auto frames = server_->waitForFrames(1, kWait);
  ASSERT_FALSE(frames.empty());
  Json::Value expected;
  expected["COMMAND"] = "REGISTER";
  expected["SN"] = "SN-TEST-0001";
  expected["IP"] = "192.0.2.10";
  expected["MAC"] = "02:42:ac:11:00:02";
  EXPECT_EQ(frames[0].json, expected);
  EXPECT_TRUE(logHas("Local interface: eth9 02:00:00:00:00:09 \n"));
}

TEST_F(AgentTest, WithoutArgumentsUsesDefaultConfigurationAndLogsFromNotice) {
  launch({}, {});
  ASSERT_TRUE(answers_.waitForRegister());
  server_->sendExec(3, "plugin_exit", "quiet", 5);
  EXPECT_EQ(answers_.to(3), once(qavel::execResponse(0, 3, "quiet\n", 0)));
  const std::string log = sandbox_->log();
  EXPECT_NE(log.find("#NOTICE#NIVO SN: SN-TEST-0001\n"), std::string::npos) << log;
  EXPECT_EQ(log.find("#DEBUG#"), std::string::npos) << log;
  EXPECT_EQ(log.find("#INFO#"), std::string::npos) << log;
}

TEST_F(AgentTest, StatusRecordAndLastExecutionTimeFollowTheRun) {
  // The stamp is written whole, once per result, with a time no earlier than `since`.
  const auto expectStampSince = [&](std::time_t since) {
    std::string stamp;
    ASSERT_TRUE(eventually([&] {
      stamp = sandbox_->readFile("tmp/lastexec");
      return !stamp.empty() && stamp.back() == '\n';
    }));
    EXPECT_TRUE(std::regex_match(stamp, std::regex("[0-9]+\n"))) << stamp;
    EXPECT_GE(std::stoll(stamp), since);
    EXPECT_LE(std::stoll(stamp), std::time(nullptr));
  };

  const std::time_t before = std::time(nullptr);
  ASSERT_TRUE(launchRunning());
  EXPECT_EQ(sandbox_->readFile("status"), kRunning);
  expectStampSince(before);

  sandbox_->removeFile("tmp/lastexec");
  const std::time_t beforeOrder = std::time(nullptr);
  server_->sendExec(7, "plugin_exit", "done", 5);
  ASSERT_EQ(answers_.to(7), once(qavel::execResponse(0, 7, "done\n", 0)));
  expectStampSince(beforeOrder);
}

TEST_F(AgentTest, OrdersThatCannotRunAreAnsweredAtOnceAndOtherFramesIgnored) {
  ASSERT_TRUE(launchRunning());
  const std::string badTaskId = "NIVO  JSON exception " + asIntFailure(Json::Value("17"));
  const std::string badPriority = "NIVO  JSON exception " + asIntFailure(Json::Value("x"));
  const std::pair<std::string, Json::Value> cases[] = {
      {R"({"COMMAND":"EXEC","TASK":{"TASKID":31,"NAME":"check_foo","PARAMETER":"","PRIORITY":5}})",
       qavel::execResponse(2, 31, "EXEC plugin: error plugin not defined check_foo", -1)},
      {R"({"COMMAND":"EXEC"})",
       qavel::execResponse(2, 0, "EXEC plugin: error plugin not defined ", -1)},
      {R"({"COMMAND":"EXEC","TASK":{"TASKID":"17","NAME":"plugin_exit","PRIORITY":5}})",
       qavel::execResponse(255, 0, badTaskId, -2)},
      {R"({"COMMAND":"EXEC","TASK":{"TASKID":33,"NAME":"plugin_exit","PRIORITY":"x"}})",
       qavel::execResponse(255, 33, badPriority, -2)},
  };
  // A frame that is not JSON is logged and otherwise ignored: nothing answers it.
  server_->sendRaw("this is not json");
  std::size_t count = 0;
  for (const auto& [order, expected] : cases) {
    SCOPED_TRACE(order);
    server_->sendRaw(order);
    const std::vector<Json::Value> got = answers_.wait(++count);
    ASSERT_EQ(got.size(), count);
    EXPECT_EQ(got.back(), expected);
  }
  EXPECT_EQ(server_->waitForFrames(0, std::chrono::milliseconds(0)).size(), 1 + count)
      << "anything beyond REGISTER and the answers";
  EXPECT_TRUE(logHas("Receive message this is not json"));
  EXPECT_TRUE(logHas("#NOTICE#EXEC plugin: error plugin not defined\n"));
}

TEST_F(AgentTest, SlowWebOrderDoesNotHoldBackPriorityFiveOrder) {
  addPlugin("pool_block", "pool_block.sh");
  ASSERT_TRUE(launchRunning());
  const std::string started = sandbox_->path("started");
  server_->sendExec(1, "pool_block", started + " " + sandbox_->path("release"), 4);
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(started); }));
  server_->sendExec(2, "plugin_exit", "'behind the slow one'", 4);
  server_->sendExec(3, "plugin_exit", "urgent", 5);

  EXPECT_EQ(answers_.to(3), once(qavel::execResponse(0, 3, "urgent\n", 0)));
  EXPECT_EQ(answers_.size(), 1u) << "the web pool's one worker is still held";
  sandbox_->writeFile("release", "");
  const std::vector<Json::Value> got = answers_.wait(3);
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(got[1], qavel::execResponse(0, 1, "released\n", 0));
  EXPECT_EQ(got[2], qavel::execResponse(0, 2, "behind the slow one\n", 0));
}

struct RegisterCase {
  const char* name;
  qavel::RegisterReply reply;
  bool accepted;
};

void PrintTo(const RegisterCase& registerCase, std::ostream* out) { *out << registerCase.name; }

class RegistrationTest : public AgentTest, public ::testing::WithParamInterface<RegisterCase> {};

TEST_P(RegistrationTest, RefusalEndsAgentWithStatusZeroAndAcceptanceLetsItWork) {
  qavel::ServerOptions options;
  options.registerReply = GetParam().reply;
  if (!GetParam().accepted) {
    launch(options);
    EXPECT_EQ(ending(kWait), kExitedNormally);
    EXPECT_TRUE(logHas("BAD register status receive by server (quit): \n"));
    EXPECT_FALSE(logHas("CREATE EXEC POOL")) << "the pools start after a pause that the refusal ends";
    return;
  }
  ASSERT_TRUE(launchRunning(options));
  server_->sendExec(5, "plugin_exit", "accepted", 5);
  // The reply to REGISTER was handled before this order, on the same thread.
  EXPECT_EQ(answers_.to(5), once(qavel::execResponse(0, 5, "accepted\n", 0)));
  EXPECT_TRUE(sandbox_->running());
  EXPECT_FALSE(logHas("BAD register"));
}

INSTANTIATE_TEST_SUITE_P(
    Replies, RegistrationTest,
    ::testing::Values(RegisterCase{"NumberOne", qavel::RegisterReply::withStatus(1), false},
                      RegisterCase{"TextOne", qavel::RegisterReply::withStatus("1"), false},
                      RegisterCase{"EmptyText", qavel::RegisterReply::withStatus(""), false},
                      RegisterCase{"NoStatus", qavel::RegisterReply::withoutStatus(), false},
                      RegisterCase{"NumberZero", qavel::RegisterReply::withStatus(0), true},
                      RegisterCase{"TextZero", qavel::RegisterReply::withStatus("0"), true}),
    [](const ::testing::TestParamInfo<RegisterCase>& info) { return info.param.name; });

// The stop does not wait for a running plugin, which outlives the agent.
TEST_F(AgentTest, SigtermStopsAgentAtOnceAndClosesLinkNormally) {
  addPlugin("pool_block", "pool_block.sh");
  ASSERT_TRUE(launchRunning());
  const std::string started = sandbox_->path("started");
  server_->sendExec(1, "pool_block", started + " " + sandbox_->path("never"), 1);
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(started); }));
  sandbox_->signal(SIGTERM);
  EXPECT_EQ(ending(kStopWait), kExitedNormally);
  const std::optional<qavel::CloseInfo> closed = server_->waitForClose(kWait);
  ASSERT_TRUE(closed);
  EXPECT_EQ(closed->code, 1000);
  EXPECT_EQ(closed->reason, kStopText);
  const std::string log = sandbox_->log();
  const std::size_t stop = log.find(kStopText + "15\n");
  ASSERT_NE(stop, std::string::npos);
  EXPECT_NE(log.find(kLinkFailure, stop), std::string::npos);
  EXPECT_EQ(kill(std::stoi(sandbox_->readFile("started")), 0), 0);
}

TEST_F(AgentTest, LinkLostWhileReportingStopsAgentAtOnce) {
  addPlugin("pool_block", "pool_block.sh");
  ASSERT_TRUE(launchRunning());
  const std::string started = sandbox_->path("started");
  server_->sendExec(1, "pool_block", started + " " + sandbox_->path("release"), 5);
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(started); }));
  server_->closeLink(1000, "server going away");
  ASSERT_TRUE(server_->waitForClose(kWait));
  sandbox_->writeFile("release", "");
  // Not at the next ping, up to 40 s later: the failed report stops the agent.
  EXPECT_EQ(ending(kStopWait), kExitedNormally);
  const std::string log = sandbox_->log();
  const std::size_t failure = log.find("#ERRORS#" + kLinkFailure);
  ASSERT_NE(failure, std::string::npos);
  EXPECT_NE(log.find(kStopText + "1\n", failure), std::string::npos);
}

TEST_F(AgentTest, OrderArrivingBeforePoolsExistIsRunOnceTheyDo) {
  qavel::ServerOptions options;
  options.execOrders = {qavel::execOrder(8, "plugin_exit", "early", 5),
                        qavel::execOrder(9, "plugin_exit", "early-web", 1)};
  launch(options);
  EXPECT_EQ(answers_.to(8), once(qavel::execResponse(0, 8, "early\n", 0)));
  EXPECT_EQ(answers_.to(9), once(qavel::execResponse(0, 9, "early-web\n", 0)));
}

TEST_F(AgentTest, SigtermWhileIdentityIsReadEndsStartUpCleanly) {
  sandbox_->setKey("NIVO", "ip_command", kPlugins + "/e2e_ip_slow.sh");
  launch();
  ASSERT_TRUE(
      eventually([&] { return std::filesystem::exists(sandbox_->path("tmp/ip-started")); }));
  sandbox_->signal(SIGTERM);
  sandbox_->writeFile("tmp/ip-release", "");
  EXPECT_EQ(ending(kStopWait), kExitedNormally);
  EXPECT_TRUE(logHas(kStopText + "15\n"));
  EXPECT_EQ(sandbox_->readFile("status"), kConnecting);
  EXPECT_FALSE(server_->waitForConnection(std::chrono::milliseconds(0)));
}

TEST_F(AgentTest, AgentEndsAtNextPingOnceServerClosesLink) {
  ASSERT_TRUE(launchRunning());
  server_->closeLink(1000, "server going away");
  EXPECT_EQ(ending(kPingWait), kExitedNormally);
  EXPECT_TRUE(logHas(kLinkFailure));
}

struct StartupFailure {
  const char* name;
  std::function<void(agentSandbox&)> prepare;
  std::string ending;        // how the process ends, as agentSandbox::describeEnd() puts it
  std::string text;          // in the log, or on standard error when there is no log
  std::string statusRecord;  // the record left in place; empty when no status file is named
  std::vector<std::string> arguments = agentTest::kDebugArguments;
};

void PrintTo(const StartupFailure& failure, std::ostream* out) { *out << failure.name; }

class StartupFailureTest : public AgentTest,
                           public ::testing::WithParamInterface<StartupFailure> {};

TEST_P(StartupFailureTest, EndsAsDesigned) {
  const StartupFailure& failure = GetParam();
  startServer();
  sandbox_->setKey("NIVO", "server_url", "wss://" + serverAddress());
  failure.prepare(*sandbox_);
  sandbox_->start(failure.arguments);
  EXPECT_EQ(ending(kWait), failure.ending);
  const std::string log = sandbox_->log();
  const std::string written = log.empty() ? sandbox_->errors() : log;
  EXPECT_NE(written.find(failure.text), std::string::npos) << written;
  EXPECT_EQ(sandbox_->readFile("status"), failure.statusRecord);
}

// Sets a key of the [NIVO] section.
std::function<void(agentSandbox&)> setting(const char* key, const char* value) {
  return [=](agentSandbox& sandbox) { sandbox.setKey("NIVO", key, value); };
}

std::function<void(agentSandbox&)> removing(const char* file) {
  return [=](agentSandbox& sandbox) { sandbox.removeFile(file); };
}

INSTANTIATE_TEST_SUITE_P(
    Causes, StartupFailureTest,
    ::testing::Values(
        StartupFailure{"MissingConfigurationFile",
                       [](agentSandbox&) {},
                       kExitedNormally,
                       "NIVO  File exception error can't open file: /etc/nivo/absent.conf\n",
                       "",
                       {"-D", "-f", "/etc/nivo/absent.conf"}},
        StartupFailure{"MissingSerialNumberFile", removing("etc/sn"), kExitedNormally,
                       "NIVO  File exception SN File not found\n", kStarting},
        StartupFailure{"MissingPluginListFile", removing("etc/plugins.list"), kExitedNormally,
                       "NIVO  File exception can't open file/etc/nivo/plugins.list\n", kStarting},
        StartupFailure{"MissingPluginDirectory", removing("plugins"), kAborted,
                       "NIVO plugin directory does not exist\n", kStarting},
        StartupFailure{"MissingServerUrlFile", setting("server_url", ""), kAborted,
                       "Get file url serveur on /tmp/nivo/server_url\n", kConnecting},
        StartupFailure{
            "ServerUrlWithoutScheme", setting("server_url", "127.0.0.1:1"), kExitedNormally,
            "NIVO  QAVEL Link exception connect function initialization error: invalid uri\n",
            kRegistering},
        StartupFailure{"ServerNotListening", setting("server_url", "wss://127.0.0.1:1"),
                       kExitedNormally,
                       "NIVO  QAVEL Link exception Error sending message: ", kRegistering},
        StartupFailure{"MissingLastExecKey",
                       [](agentSandbox& sandbox) { sandbox.removeKey("LOG", "lastExec"); },
                       kAborted, "Pool exec is running\n", kRunning},
        StartupFailure{"LastExecIsSymbolicLink",
                       [](agentSandbox& sandbox) {
                         sandbox.writeFile("victim", "keep\n");
                         std::filesystem::create_symlink(sandbox.path("victim"),
                                                         sandbox.path("tmp/lastexec"));
                       },
                       kAborted, "Pool exec is running\n", kRunning},
        StartupFailure{"MissingThreadCount", setting("thread", ""), kAborted, "CREATE EXEC POOL\n",
                       kRunning}),
    [](const ::testing::TestParamInfo<StartupFailure>& info) { return info.param.name; });

}  // namespace
