// SIGHUP, end to end: the agent reads its configuration again and takes up plugins and limits on
// the link it has, reopens its log after a rotation, and keeps all it had when the new
// configuration cannot be used.
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "tests/e2e/agentTest.h"

namespace {

using agentTest::AgentTest;
using agentTest::kWait;
using agentTest::once;

TEST_F(AgentTest, ReloadTakesUpPluginsAndLimitsOnTheSameLinkAndKeepsAllWhenItCannot) {
  sandbox_->setKey("NIVO", "plugin_timeout", "30");
  addPlugin("fault_forever", "fault_forever.sh");
  sandbox_->writeFile("plugins/plugin_new", "#!/bin/sh\necho new\n", 0755);  // not listed yet
  ASSERT_TRUE(launchRunning());
  const std::string unknownNew = "EXEC plugin: error plugin not defined plugin_new";
  server_->sendExec(1, "plugin_new", "", 5);
  ASSERT_EQ(answers_.to(1), once(qavel::execResponse(2, 1, unknownNew, -1)));
  EXPECT_TRUE(logHas("#NOTICE#EXEC plugin: error plugin not defined\n"));
  EXPECT_TRUE(logHas("#DEBUG#{\n\t\"COMMAND\" : \"EXEC-RESPONSE\",\n\t\"STATUS\" : 2,"));

  // Rotated the way logrotate's create does it: moved away, then the agent is told.
  ASSERT_EQ(std::rename(sandbox_->path("agent.log").c_str(), sandbox_->path("agent.log.1").c_str()),
            0);
  sandbox_->setPluginList({"plugin_new", "fault_forever"});
  sandbox_->setKey("NIVO", "plugin_timeout", "1");
  sandbox_->setKey("NIVO", "server_url", "wss://127.0.0.1:1");
  sandbox_->writeConfig();
  sandbox_->signal(SIGHUP);
  ASSERT_TRUE(
      sandbox_->waitForLog("#NOTICE#NIVO reload: plugins added: plugin_new; plugins "
                           "removed: plugin_exit; NIVO/plugin_timeout: '30' -> '1'\n",
                           kWait));
  EXPECT_TRUE(logHas("#NOTICE#NIVO reload: NIVO/server_url changed; it takes a restart\n"));
  EXPECT_EQ(sandbox_->readFile("agent.log.1").find("NIVO reload"), std::string::npos);

  server_->sendExec(2, "plugin_new", "", 5);
  server_->sendExec(3, "plugin_exit", "gone", 5);
  server_->sendExec(4, "fault_forever", sandbox_->path("forever"), 1);
  EXPECT_EQ(answers_.to(2), once(qavel::execResponse(0, 2, "new\n", 0)));
  EXPECT_EQ(answers_.to(3), once(qavel::execResponse(
                                2, 3, "EXEC plugin: error plugin not defined plugin_exit", -1)));
  EXPECT_EQ(answers_.to(4),
            once(qavel::execResponse(0, 4, "UNKNOWN: plugin timed out after 1 seconds\n", 3)));

  // A plugin list that cannot be read: nothing changes, and one line says why.
  sandbox_->removeFile("etc/plugins.list");
  sandbox_->signal(SIGHUP);
  ASSERT_TRUE(
      sandbox_->waitForLog("#WARNING#NIVO reload refused, the configuration in use is "
                           "kept: can't open file/etc/nivo/plugins.list\n",
                           kWait));
  server_->sendExec(5, "plugin_new", "", 5);
  EXPECT_EQ(answers_.to(5), once(qavel::execResponse(0, 5, "new\n", 0)));

  const std::vector<qavel::ReceivedFrame> frames = server_->waitForFrames(0, kWait);
  EXPECT_EQ(std::count_if(frames.begin(), frames.end(),
                          [](const qavel::ReceivedFrame& frame) {
                            return frame.json.isObject() && frame.json["COMMAND"] == "REGISTER";
                          }),
            1);
  EXPECT_FALSE(server_->waitForClose(std::chrono::milliseconds(0)));
  EXPECT_TRUE(sandbox_->running());
}

}  // namespace
