// The real qavel-client, each run in a sandbox of its own, against the protocol peer on 127.0.0.1:
// registration, orders and their answers, the files the agent leaves behind, and every way it ends.
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "../common/eventually.h"
#include "agentSandbox.h"
#include "qavelServer.h"

namespace {

// Bounds the waits of a failing test; a passing one goes on as soon as its condition holds. Wide,
// because a sanitized agent starts and forks slowly.
constexpr std::chrono::seconds kWait{20};
// A stop must not wait for the 40-second pause between keep-alive pings.
constexpr std::chrono::seconds kStopWait{10};
// A closed link is noticed at the next of those pings.
constexpr std::chrono::seconds kPingWait{60};

const std::string kPlugins = NIVO_TEST_PLUGIN_DIR;
const std::string kMonitoringPlugins = NIVO_MONITORING_PLUGIN_DIR;
const std::string kStopText = "stop qavel client... SIGTERM: ";
const std::string kLinkFailure = "NIVO  QAVEL Link exception ";
const std::string kExitedNormally = "exit status 0";
const std::string kAborted = "killed by signal " + std::to_string(SIGABRT);

const std::string kStarting = "STATUS=STARTING             \nREGISTER=NONE               \n";
const std::string kConnecting = "STATUS=CONNECTING           \nREGISTER=NONE               \n";
const std::string kRegistering = "STATUS=REGISTERING          \nREGISTER=NONE               \n";
const std::string kRunning = "STATUS=RUNNING              \nREGISTER=OK                 \n";

bool isAnswer(const qavel::ReceivedFrame& frame) {
  return frame.isJson && frame.json.isObject() && frame.json["COMMAND"] == "EXEC-RESPONSE";
}

std::vector<Json::Value> answersAmong(const std::vector<qavel::ReceivedFrame>& frames) {
  std::vector<Json::Value> answers;
  for (const qavel::ReceivedFrame& frame : frames)
    if (isAnswer(frame)) answers.push_back(frame.json);
  return answers;
}

// JsonCpp's own text for reading `value` as an integer.
std::string asIntFailure(const Json::Value& value) {
  try {
    (void)value.asInt();
  } catch (const Json::LogicError& e) {
    return e.what();
  }
  return "";
}

struct HandRun {
  std::string output;
  int returnCode = -1;
};

// Runs a shell command line as the agent runs its plugins: with an empty environment.
HandRun runByHand(const std::string& command) {
  HandRun run;
  FILE* const out = popen(("/usr/bin/env -i " + command).c_str(), "r");
  if (out == nullptr) return run;
  char chunk[4096];
  std::size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, out)) > 0) run.output.append(chunk, n);
  const int status = pclose(out);
  if (status != -1 && WIFEXITED(status)) run.returnCode = WEXITSTATUS(status);
  return run;
}

// Load figures change from one run to the next; the rest of the text does not.
std::string withoutFigures(const std::string& text) {
  return std::regex_replace(text, std::regex("[0-9]+(\\.[0-9]+)?"), "N");
}

class AgentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0)
      GTEST_SKIP() << "needs root: each agent runs in a private mount namespace of its own";
    sandbox_ =
        std::make_unique<agentSandbox>(agentSandbox::Paths{NIVO_AGENT_PATH, NIVO_SANDBOX_RUN}, "");
    sandbox_->addPlugin("plugin_exit", kPlugins + "/plugin_exit.sh");
    // What a ThreadSanitizer build of the agent reports by design (see the file); other builds
    // ignore the variable.
    const char* const inherited = std::getenv("TSAN_OPTIONS");
    std::string options = inherited != nullptr ? inherited : "";
    if (!options.empty()) options += ":";
    sandbox_->setEnvironment("TSAN_OPTIONS",
                             options + "suppressions=" NIVO_AGENT_TSAN_SUPPRESSIONS);
  }

  void TearDown() override {
    if (sandbox_ == nullptr) return;
    // A sanitizer's report from the agent is a fault even when the test saw what it wanted.
    const std::string printed = sandbox_->output() + sandbox_->errors();
    for (const char* mark : {"Sanitizer", "runtime error"})
      EXPECT_EQ(printed.find(mark), std::string::npos) << printed;
    if (HasFailure())
      std::cerr << "---- agent log\n" << sandbox_->log() << "---- agent output\n" << printed;
  }

  void startServer(qavel::ServerOptions options = {}) {
    server_ = std::make_unique<qavel::QavelServer>(std::move(options));
    server_->start();
  }

  std::string serverAddress() const { return "127.0.0.1:" + std::to_string(server_->port()); }

  // Starts the peer and an agent configured to reach it.
  void launch(qavel::ServerOptions options = {}) {
    startServer(std::move(options));
    sandbox_->setKey("NIVO", "server_url", "wss://" + serverAddress());
    sandbox_->start();
  }

  // Launches and waits until the agent has registered and its pools run.
  ::testing::AssertionResult launchRunning(qavel::ServerOptions options = {}) {
    launch(std::move(options));
    if (sandbox_->waitForLog("Pool exec is running", kWait)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "the agent did not reach its run phase";
  }

  // Every frame received, once `enough` holds for them or `limit` has passed.
  template <typename Enough>
  std::vector<qavel::ReceivedFrame> framesOnce(Enough enough,
                                               std::chrono::steady_clock::duration limit = kWait) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::size_t seen = 0;
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      std::vector<qavel::ReceivedFrame> frames =
          server_->waitForFrames(seen + 1, std::max(left, std::chrono::milliseconds(0)));
      if (enough(frames) || left.count() <= 0) return frames;
      seen = frames.size();
    }
  }

  // The answers received, once there are at least `count` of them (fewer after `limit`).
  std::vector<Json::Value> answers(std::size_t count,
                                   std::chrono::steady_clock::duration limit = kWait) {
    return answersAmong(framesOnce(
        [count](const auto& frames) { return answersAmong(frames).size() >= count; }, limit));
  }

  // The answer to the order `taskId` (null when none came).
  Json::Value answerTo(int taskId) {
    const auto find = [taskId](const std::vector<qavel::ReceivedFrame>& frames) {
      for (const Json::Value& found : answersAmong(frames))
        if (found["TASK"]["TASKID"] == taskId) return found;
      return Json::Value();
    };
    return find(framesOnce([&](const auto& frames) { return !find(frames).isNull(); }));
  }

  bool logHas(const std::string& text) const {
    return sandbox_->log().find(text) != std::string::npos;
  }

  std::unique_ptr<qavel::QavelServer> server_;
  std::unique_ptr<agentSandbox> sandbox_;
};

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
  startServer();
  sandbox_->setKey("NIVO", "server_url", "wss://" + serverAddress());
  sandbox_->start({});
  ASSERT_FALSE(server_->waitForFrames(1, kWait).empty());
  server_->sendExec(3, "plugin_exit", "quiet", 5);
  EXPECT_EQ(answerTo(3), qavel::execResponse(0, 3, "quiet\n", 0));
  const std::string log = sandbox_->log();
  EXPECT_NE(log.find("#NOTICE#NIVO SN: SN-TEST-0001\n"), std::string::npos) << log;
  EXPECT_EQ(log.find("#DEBUG#"), std::string::npos) << log;
  EXPECT_EQ(log.find("#INFO#"), std::string::npos) << log;
}

TEST_F(AgentTest, RegistersIdentityThatIpProgramReports) {
  const std::optional<Json::Value> interfaces =
      qavel::parseJsonDocument(runByHand("/usr/sbin/ip -j a").output);
  ASSERT_TRUE(interfaces && interfaces->isArray());
  std::string ip;
  std::string mac;
  for (const Json::Value& interface : *interfaces) {
    if (interface["ifname"] == "lo") continue;
    mac = interface["address"].asString();
    ip = interface["addr_info"][0]["local"].asString();
    if (!ip.empty()) break;
  }

  launch();
  const auto frames = server_->waitForFrames(1, kWait);
  ASSERT_FALSE(frames.empty());
  EXPECT_EQ(frames[0].json["IP"], ip);
  EXPECT_EQ(frames[0].json["MAC"], mac);
  EXPECT_EQ(frames[0].json["SN"], "SN-TEST-0001");
}

TEST_F(AgentTest, StatusRecordAndLastExecutionTimeFollowTheRun) {
  const std::time_t before = std::time(nullptr);
  std::string stamp;
  const auto stampWritten = [&] {
    stamp = sandbox_->readFile("tmp/lastexec");
    return !stamp.empty() && stamp.back() == '\n';
  };
  const auto expectStampSince = [&](std::time_t since) {
    EXPECT_TRUE(std::regex_match(stamp, std::regex("[0-9]+\n"))) << stamp;
    const long long seconds = std::stoll(stamp);
    EXPECT_GE(seconds, since);
    EXPECT_LE(seconds, std::time(nullptr));
  };

  ASSERT_TRUE(launchRunning());
  EXPECT_EQ(sandbox_->readFile("status"), kRunning);
  ASSERT_TRUE(eventually(stampWritten));
  expectStampSince(before);

  sandbox_->removeFile("tmp/lastexec");
  const std::time_t beforeOrder = std::time(nullptr);
  server_->sendExec(7, "plugin_exit", "done", 5);
  ASSERT_EQ(answerTo(7), qavel::execResponse(0, 7, "done\n", 0));
  ASSERT_TRUE(eventually(stampWritten));
  expectStampSince(beforeOrder);
}

TEST_F(AgentTest, RealPluginResultsAreReportedAsThePluginGivesThem) {
  sandbox_->addPlugin("check_dummy", kMonitoringPlugins + "/check_dummy");
  sandbox_->addPlugin("check_load", kMonitoringPlugins + "/check_load");
  ASSERT_TRUE(launchRunning());
  const struct {
    const char* name;
    const char* parameter;
  } orders[] = {
      {"check_dummy", "0 'all fine'"},
      {"check_dummy", "1 warm"},
      {"check_dummy", "2 down"},
      {"check_dummy", "3"},
      {"check_load", "-w 1000,1000,1000 -c 2000,2000,2000"},
      {"check_load", "-w nonsense"},
  };
  for (int id = 0; id < static_cast<int>(std::size(orders)); ++id) {
    const std::string name = orders[id].name;
    const std::string parameter = orders[id].parameter;
    SCOPED_TRACE(name + " " + parameter);
    server_->sendExec(id, name, parameter, 5);
    const Json::Value got = answerTo(id);
    const HandRun byHand = runByHand(kMonitoringPlugins + "/" + name + " " + parameter);
    EXPECT_EQ(got["STATUS"], 0);
    EXPECT_EQ(got["TASK"]["RETURN"], byHand.returnCode);
    EXPECT_EQ(withoutFigures(got["TASK"]["OUTPUT"].asString()), withoutFigures(byHand.output));
  }
}

TEST_F(AgentTest, OrdersThatCannotRunAreAnsweredAtOnce) {
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
  std::size_t count = 0;
  for (const auto& [order, expected] : cases) {
    SCOPED_TRACE(order);
    server_->sendRaw(order);
    const std::vector<Json::Value> got = answers(++count);
    ASSERT_EQ(got.size(), count);
    EXPECT_EQ(got.back(), expected);
  }
}

TEST_F(AgentTest, FrameThatIsNotJsonIsIgnored) {
  ASSERT_TRUE(launchRunning());
  server_->sendRaw("this is not json");
  server_->sendExec(41, "plugin_exit", "'still here'", 5);
  EXPECT_EQ(answerTo(41), qavel::execResponse(0, 41, "still here\n", 0));
  EXPECT_EQ(server_->waitForFrames(0, std::chrono::milliseconds(0)).size(), 2u)
      << "anything beyond REGISTER and the one answer";
  EXPECT_TRUE(logHas("Receive message this is not json"));
}

TEST_F(AgentTest, SlowWebOrderDoesNotHoldBackPriorityFiveOrder) {
  sandbox_->addPlugin("pool_block", kPlugins + "/pool_block.sh");
  ASSERT_TRUE(launchRunning());
  const std::string started = sandbox_->path("started");
  const std::string release = sandbox_->path("release");
  server_->sendExec(1, "pool_block", started + " " + release, 4);
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(started); }));
  server_->sendExec(2, "plugin_exit", "'behind the slow one'", 4);
  server_->sendExec(3, "plugin_exit", "urgent", 5);

  EXPECT_EQ(answerTo(3), qavel::execResponse(0, 3, "urgent\n", 0));
  EXPECT_EQ(answers(0).size(), 1u) << "the web pool's one worker is still held";
  sandbox_->writeFile("release", "");
  const std::vector<Json::Value> got = answers(3);
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(got[1], qavel::execResponse(0, 1, "released\n", 0));
  EXPECT_EQ(got[2], qavel::execResponse(0, 2, "behind the slow one\n", 0));
}

TEST_F(AgentTest, EveryOneOfManyOrdersIsAnsweredExactlyOnce) {
  constexpr int kOrders = 200;
  ASSERT_TRUE(launchRunning());
  for (int id = 1; id <= kOrders; ++id)
    server_->sendExec(id, "plugin_exit", "task-" + std::to_string(id), 1 + id % 9);
  const std::vector<Json::Value> got = answers(kOrders, std::chrono::seconds(120));
  std::map<int, int> timesAnswered;
  for (const Json::Value& one : got) {
    const int id = one["TASK"]["TASKID"].asInt();
    ++timesAnswered[id];
    EXPECT_EQ(one, qavel::execResponse(0, id, "task-" + std::to_string(id) + "\n", 0));
  }
  EXPECT_EQ(got.size(), static_cast<std::size_t>(kOrders));
  EXPECT_EQ(timesAnswered.size(), static_cast<std::size_t>(kOrders));
  EXPECT_EQ(timesAnswered.begin()->first, 1);
  EXPECT_EQ(timesAnswered.rbegin()->first, kOrders);
  // Results finishing together still leave one whole line.
  EXPECT_TRUE(eventually([&] {
    return std::regex_match(sandbox_->readFile("tmp/lastexec"), std::regex("[0-9]+\n"));
  }));
}

struct RegisterCase {
  const char* name;
  qavel::RegisterReply reply;
};

void PrintTo(const RegisterCase& registerCase, std::ostream* out) { *out << registerCase.name; }

std::string caseName(const ::testing::TestParamInfo<RegisterCase>& info) { return info.param.name; }

class RegistrationRefusedTest : public AgentTest,
                                public ::testing::WithParamInterface<RegisterCase> {};

TEST_P(RegistrationRefusedTest, AgentEndsWithStatusZero) {
  qavel::ServerOptions options;
  options.registerReply = GetParam().reply;
  launch(options);
  EXPECT_EQ(agentSandbox::describeEnd(sandbox_->waitExit(kWait)), kExitedNormally);
  EXPECT_TRUE(logHas("BAD register status receive by server (quit): \n"));
}

INSTANTIATE_TEST_SUITE_P(
    Replies, RegistrationRefusedTest,
    ::testing::Values(RegisterCase{"NumberOne", qavel::RegisterReply::withStatus(1)},
                      RegisterCase{"TextOne", qavel::RegisterReply::withStatus("1")},
                      RegisterCase{"EmptyText", qavel::RegisterReply::withStatus("")},
                      RegisterCase{"NoStatus", qavel::RegisterReply::withoutStatus()}),
    caseName);

class RegistrationAcceptedTest : public AgentTest,
                                 public ::testing::WithParamInterface<RegisterCase> {};

TEST_P(RegistrationAcceptedTest, AgentKeepsRunningAndAnswersOrders) {
  qavel::ServerOptions options;
  options.registerReply = GetParam().reply;
  ASSERT_TRUE(launchRunning(options));
  server_->sendExec(5, "plugin_exit", "accepted", 5);
  // The reply to REGISTER was handled before this order, on the same thread.
  EXPECT_EQ(answerTo(5), qavel::execResponse(0, 5, "accepted\n", 0));
  EXPECT_TRUE(sandbox_->running());
  EXPECT_FALSE(logHas("BAD register"));
}

INSTANTIATE_TEST_SUITE_P(
    Replies, RegistrationAcceptedTest,
    ::testing::Values(RegisterCase{"NumberZero", qavel::RegisterReply::withStatus(0)},
                      RegisterCase{"TextZero", qavel::RegisterReply::withStatus("0")}),
    caseName);

TEST_F(AgentTest, SigtermStopsRunningAgentAndClosesLinkNormally) {
  ASSERT_TRUE(launchRunning());
  sandbox_->signal(SIGTERM);
  EXPECT_EQ(agentSandbox::describeEnd(sandbox_->waitExit(kStopWait)), kExitedNormally);
  const std::optional<qavel::CloseInfo> closed = server_->waitForClose(kWait);
  ASSERT_TRUE(closed);
  EXPECT_EQ(closed->code, 1000);
  EXPECT_EQ(closed->reason, kStopText);
  const std::string log = sandbox_->log();
  const std::size_t stop = log.find(kStopText + "15\n");
  ASSERT_NE(stop, std::string::npos);
  EXPECT_NE(log.find(kLinkFailure, stop), std::string::npos);
}

TEST_F(AgentTest, SigtermEndsAgentWithoutWaitingForRunningPlugin) {
  sandbox_->addPlugin("pool_block", kPlugins + "/pool_block.sh");
  ASSERT_TRUE(launchRunning());
  const std::string started = sandbox_->path("started");
  server_->sendExec(1, "pool_block", started + " " + sandbox_->path("never"), 1);
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(started); }));
  sandbox_->signal(SIGTERM);
  EXPECT_EQ(agentSandbox::describeEnd(sandbox_->waitExit(kStopWait)), kExitedNormally);
  // The plugin, in the agent's process group, outlives the agent.
  EXPECT_EQ(kill(-sandbox_->pid(), 0), 0);
}

TEST_F(AgentTest, LinkLostWhileReportingStopsAgentAtOnce) {
  sandbox_->addPlugin("pool_block", kPlugins + "/pool_block.sh");
  ASSERT_TRUE(launchRunning());
  const std::string started = sandbox_->path("started");
  server_->sendExec(1, "pool_block", started + " " + sandbox_->path("release"), 5);
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(started); }));
  server_->closeLink(1000, "server going away");
  ASSERT_TRUE(server_->waitForClose(kWait));
  sandbox_->writeFile("release", "");
  // Not at the next ping, up to 40 s later: the failed report stops the agent.
  EXPECT_EQ(agentSandbox::describeEnd(sandbox_->waitExit(kStopWait)), kExitedNormally);
  const std::string log = sandbox_->log();
  const std::size_t failure = log.find(kLinkFailure);
  ASSERT_NE(failure, std::string::npos);
  EXPECT_NE(log.find(kStopText + "1\n", failure), std::string::npos);
}

TEST_F(AgentTest, OrderArrivingBeforePoolsExistIsRunOnceTheyDo) {
  qavel::ServerOptions options;
  options.execOrders = {qavel::execOrder(8, "plugin_exit", "early", 5),
                        qavel::execOrder(9, "plugin_exit", "early-web", 1)};
  launch(options);
  EXPECT_EQ(answerTo(8), qavel::execResponse(0, 8, "early\n", 0));
  EXPECT_EQ(answerTo(9), qavel::execResponse(0, 9, "early-web\n", 0));
}

TEST_F(AgentTest, SigtermWhileIdentityIsReadEndsStartUpCleanly) {
  sandbox_->setKey("NIVO", "ip_command", kPlugins + "/e2e_ip_slow.sh");
  launch();
  ASSERT_TRUE(
      eventually([&] { return std::filesystem::exists(sandbox_->path("tmp/ip-started")); }));
  sandbox_->signal(SIGTERM);
  sandbox_->writeFile("tmp/ip-release", "");
  EXPECT_EQ(agentSandbox::describeEnd(sandbox_->waitExit(kStopWait)), kExitedNormally);
  EXPECT_TRUE(logHas(kStopText + "15\n"));
  EXPECT_EQ(sandbox_->readFile("status"), kConnecting);
  EXPECT_FALSE(server_->waitForConnection(std::chrono::milliseconds(0)));
}

TEST_F(AgentTest, SigtermWhileRegisteringEndsStartUpCleanly) {
  launch();
  ASSERT_TRUE(sandbox_->waitForLog("end connect function: ", kWait));
  sandbox_->signal(SIGTERM);
  EXPECT_EQ(agentSandbox::describeEnd(sandbox_->waitExit(kStopWait)), kExitedNormally);
  EXPECT_TRUE(logHas(kStopText + "15\n"));
}

TEST_F(AgentTest, AgentEndsAtNextPingOnceServerClosesLink) {
  ASSERT_TRUE(launchRunning());
  server_->closeLink(1000, "server going away");
  EXPECT_EQ(agentSandbox::describeEnd(sandbox_->waitExit(kPingWait)), kExitedNormally);
  EXPECT_TRUE(logHas(kLinkFailure));
}

TEST_F(AgentTest, EmptyServerUrlIsTakenFromDroppedFile) {
  startServer();
  sandbox_->setKey("NIVO", "server_url", "");
  sandbox_->writeFile("tmp/server_url", serverAddress() + "\nsecond line\n");
  sandbox_->start();
  EXPECT_TRUE(server_->waitForConnection(kWait));
  EXPECT_TRUE(logHas("Server connection wss://" + serverAddress() + ".....\n"));
}

struct StartupFailure {
  const char* name;
  std::function<void(agentSandbox&)> prepare;
  std::string ending;        // how the process ends, as agentSandbox::describeEnd() puts it
  std::string text;          // in the log, or on standard error when there is no log
  std::string statusRecord;  // the record left in place; empty when no status file is named
  std::vector<std::string> arguments = {"-D", "-f", "/etc/nivo/qavel.conf"};
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
  EXPECT_EQ(agentSandbox::describeEnd(sandbox_->waitExit(kWait)), failure.ending);
  const std::string log = sandbox_->log();
  const std::string written = log.empty() ? sandbox_->errors() : log;
  EXPECT_NE(written.find(failure.text), std::string::npos) << written;
  EXPECT_EQ(sandbox_->readFile("status"), failure.statusRecord);
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
        StartupFailure{"MissingSerialNumberFile",
                       [](agentSandbox& sandbox) { sandbox.removeFile("etc/sn"); }, kExitedNormally,
                       "NIVO  File exception SN File not found\n", kStarting},
        StartupFailure{"MissingPluginListFile",
                       [](agentSandbox& sandbox) { sandbox.removeFile("etc/plugins.list"); },
                       kExitedNormally,
                       "NIVO  File exception can't open file/etc/nivo/plugins.list\n", kStarting},
        StartupFailure{"MissingPluginDirectory",
                       [](agentSandbox& sandbox) { sandbox.removeFile("plugins"); }, kAborted,
                       "NIVO plugin directory does not exist\n", kStarting},
        StartupFailure{"MissingServerUrlFile",
                       [](agentSandbox& sandbox) { sandbox.setKey("NIVO", "server_url", ""); },
                       kAborted, "Get file url serveur on /tmp/nivo/server_url\n", kConnecting},
        StartupFailure{
            "ServerUrlWithoutScheme",
            [](agentSandbox& sandbox) { sandbox.setKey("NIVO", "server_url", "127.0.0.1:1"); },
            kExitedNormally,
            "NIVO  QAVEL Link exception connect function initialization error: invalid uri\n",
            kRegistering},
        StartupFailure{"ServerNotListening",
                       [](agentSandbox& sandbox) {
                         sandbox.setKey("NIVO", "server_url", "wss://127.0.0.1:1");
                       },
                       kExitedNormally,
                       "NIVO  QAVEL Link exception Error sending message: ", kRegistering},
        StartupFailure{"MissingLastExecKey",
                       [](agentSandbox& sandbox) { sandbox.removeKey("LOG", "lastExec"); },
                       kAborted, "Pool exec is running\n", kRunning},
        StartupFailure{"MissingThreadCount",
                       [](agentSandbox& sandbox) { sandbox.setKey("NIVO", "thread", ""); },
                       kAborted, "CREATE EXEC POOL\n", kRunning}),
    [](const ::testing::TestParamInfo<StartupFailure>& info) { return info.param.name; });

}  // namespace
