// The real qavel-client, each run in a sandbox of its own, against the protocol peer on 127.0.0.1:
// registration, orders and their answers, the files the agent leaves behind, and every way it ends.
#include <signal.h>

#include <ctime>
#include <filesystem>
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

const std::string kStarting = "STATUS=STARTING             \nREGISTER=NONE               \n";
const std::string kConnecting = "STATUS=CONNECTING           \nREGISTER=NONE               \n";
const std::string kRunning = "STATUS=RUNNING              \nREGISTER=OK                 \n";

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

TEST_F(AgentTest, RefusedRegistrationEndsAgentWithStatusZeroBeforeItsPools) {
  qavel::ServerOptions options;
  options.registerReply = qavel::RegisterReply::withStatus(1);
  launch(options);
  EXPECT_EQ(ending(kWait), kExitedNormally);
  // The pools start after a pause that the refusal falls in: none before it, though a slow exit
  // (a sanitizer's) may let them start after it.
  const std::string log = sandbox_->log();
  const std::size_t refusal = log.find("BAD register status receive by server (quit): \n");
  ASSERT_NE(refusal, std::string::npos);
  EXPECT_GT(log.find("CREATE EXEC POOL"), refusal);
}

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
  EXPECT_NE(log.find("Pool stop, size: ", stop), std::string::npos);
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

TEST_F(AgentTest, MissingPluginListEndsAgentAtStartUp) {
  sandbox_->removeFile("etc/plugins.list");
  launch();
  EXPECT_EQ(ending(kWait), kExitedNormally);
  EXPECT_TRUE(logHas("NIVO  File exception can't open file/etc/nivo/plugins.list\n"));
  EXPECT_EQ(sandbox_->readFile("status"), kStarting);
}

}  // namespace
