// The real qavel-client, each run in a sandbox of its own, against the protocol peer on 127.0.0.1:
// registration, orders and their answers, the files the agent leaves behind, and every way it ends.
#include <signal.h>

#include <ctime>
#include <filesystem>
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

const std::string kStarting = "STATUS=STARTING             \nREGISTER=NONE               \n";
const std::string kRegistering = "STATUS=REGISTERING          \nREGISTER=NONE               \n";
const std::string kRunning = "STATUS=RUNNING              \nREGISTER=OK                 \n";

// Orders the server sends right after REGISTER reach the agent before its pools exist: they wait
// for them. The status record ends at RUNNING, and the last-execution file is stamped at start and
// after each result.
TEST_F(AgentTest, OrdersAreAnsweredAndTheStatusAndLastExecutionFilesFollowTheRun) {
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
  qavel::ServerOptions options;
  options.execOrders = {qavel::execOrder(8, "plugin_exit", "early", 5),
                        qavel::execOrder(9, "plugin_exit", "early-web", 1)};
  launch(options);
  EXPECT_EQ(answers_.to(8), once(qavel::execResponse(0, 8, "early\n", 0)));
  EXPECT_EQ(answers_.to(9), once(qavel::execResponse(0, 9, "early-web\n", 0)));
  EXPECT_EQ(sandbox_->readFile("status"), kRunning);
  expectStampSince(before);
  // The milestones of the start, each at its level.
  const std::string url = "wss://" + serverAddress();
  for (const std::string& line : std::vector<std::string>{
           "#NOTICE#NIVO start.... \n", "#DEBUG#Signal arming...\n",
           "#DEBUG#Server connection " + url + ".....\n",
           "#INFO#Connect to server information: " + url + "\n",
           "#DEBUG#POOL EXEC: Pool Start, size: 1\n",
           "#DEBUG#POOL EXEC: service exec plugin_exit\n",
           "#DEBUG#ENDPOINT SOCKET: start connect function: " + url + "\n",
           "#DEBUG#ENDPOINT SOCKET: on_message function: {", "#INFO#Pool exec is running\n"})
    EXPECT_TRUE(logHas(line)) << line;
  // Said by each of the two pools when its mode is set, and again when it starts.
  const std::string log = sandbox_->log();
  const std::regex autoSize("#DEBUG#POOL EXEC: Auto size mode\n");
  EXPECT_EQ(std::distance(std::sregex_iterator(log.begin(), log.end(), autoSize), {}), 4);

  sandbox_->removeFile("tmp/lastexec");
  const std::time_t beforeOrder = std::time(nullptr);
  server_->sendExec(7, "plugin_exit", "done", 5);
  ASSERT_EQ(answers_.to(7), once(qavel::execResponse(0, 7, "done\n", 0)));
  expectStampSince(beforeOrder);
}

// Each ends the agent with status 0, one line saying why, and the status record where start-up
// stopped; only a refused registration has said anything to the server.
TEST_F(AgentTest, StartUpFailuresEndTheAgentWithStatusZeroSayingWhy) {
  sandbox_.reset();  // each case runs an agent of its own
  qavel::ServerOptions refusing;
  refusing.registerReply = qavel::RegisterReply::withStatus(1);
  const qavel::ServerOptions plain;
  qavel::ServerOptions slow;
  slow.openDelay = std::chrono::milliseconds(4000);
  const struct {
    const char* name;
    std::function<void(agentSandbox&)> configure;
    const qavel::ServerOptions& server;
    std::string line;
    const std::string& status;
  } cases[] = {
      {"refused registration", nullptr, refusing,
       "#NOTICE#BAD register status receive by server (quit): \n", kRunning},
      // REGISTER waits for the open at most open_timeout, says so, then fails as without the key.
      {"link slower than open_timeout",
       [](agentSandbox& s) { s.setKey("NIVO", "open_timeout", "1"); }, slow,
       "#ERRORS#NIVO link not open after 1 s\n", kRegistering},
      {"no plugin list", [](agentSandbox& s) { s.removeFile("etc/plugins.list"); }, plain,
       "#ERRORS#NIVO  File exception can't open file/etc/nivo/plugins.list\n", kStarting},
      {"unreadable rules",
       [](agentSandbox& s) { s.setKey("NIVO", "plugin_rules", "/etc/nivo/none"); }, plain,
       "#ERRORS#NIVO  File exception cannot read the plugin rules /etc/nivo/none: No such file or "
       "directory\n",
       kStarting},
      {"unreadable CA file",
       [](agentSandbox& s) {
         s.setKey("SSL", "verify_server", "1");
         s.setKey("SSL", "cafile", "/etc/nivo/missing.pem");
       },
       plain,
       "#ERRORS#" + kLinkFailure +
           "SSLException: error in init session cannot load the trusted certificates of "
           "/etc/nivo/missing.pem: No such file or directory\n",
       kRegistering},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Pair& agent = startPair(c.server, c.configure);
    EXPECT_EQ(agentSandbox::describeEnd(agent.sandbox->waitExit(kWait)), kExitedNormally);
    const std::string log = agent.sandbox->log();
    const std::size_t line = log.find(c.line);
    ASSERT_NE(line, std::string::npos) << log;
    // A refused registration falls in the pause before the pools: none is created before it.
    EXPECT_GT(log.find("CREATE EXEC POOL"), line);
    EXPECT_EQ(agent.sandbox->readFile("status"), c.status);
    EXPECT_EQ(agent.server->waitForFrames(1, std::chrono::milliseconds(0)).empty(),
              &c.server != &refusing);
  }
}

TEST_F(AgentTest, AgentEndsAtNextPingOnceServerClosesLink) {
  ASSERT_TRUE(launchRunning());
  server_->closeLink(1000, "server going away");
  EXPECT_EQ(ending(kPingWait), kExitedNormally);
  EXPECT_TRUE(logHas(kLinkFailure));
}

}  // namespace
