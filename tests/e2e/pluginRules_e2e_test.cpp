// NIVO/plugin_rules and NIVO/confine_plugins, end to end: an order that no rule allows, or whose
// pinned plugin no longer has its hash, is answered at once and never run, logged for audit and
// counted; a confined plugin reaches only what its rule opens.
#include <openssl/evp.h>
#include <signal.h>

#include <iomanip>
#include <sstream>

#include "src/service/pluginConfinement.h"
#include "tests/common/rewriteInPlace.h"
#include "tests/e2e/agentTest.h"

namespace {

using agentTest::AgentTest;
using agentTest::kExitedNormally;
using agentTest::kWait;
using agentTest::once;

std::string sha256Hex(const std::string& content) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_Digest(content.data(), content.size(), digest, &size, EVP_sha256(), nullptr);
  std::ostringstream hex;
  for (unsigned int i = 0; i < size; ++i)
    hex << std::hex << std::setw(2) << std::setfill('0') << static_cast<int>(digest[i]);
  return hex.str();
}

TEST_F(AgentTest, OrdersTheRulesDoNotAllowAreRefusedAndAPinnedPluginChangedInPlaceIsNotRun) {
  const std::string original = sandbox_->readFile("plugins/plugin_exit");
  sandbox_->writeFile("etc/plugin-rules",
                      "plugin_exit sha256=" + sha256Hex(original) + " args=[a-z]+ [0-3]\n");
  sandbox_->setKey("NIVO", "plugin_rules", "/etc/nivo/plugin-rules");
  sandbox_->setKey("LOG", "metrics_file", "/tmp/nivo/nivo-agent.prom");
  ASSERT_TRUE(launchRunning());
  const auto refusal = [](int task, const std::string& why) {
    return once(qavel::execResponse(2, task, "EXEC plugin: plugin_exit not allowed: " + why, -1));
  };

  server_->sendExec(1, "plugin_exit", "ok 0", 5);
  EXPECT_EQ(answers_.to(1), once(qavel::execResponse(0, 1, "ok\n", 0)));
  server_->sendExec(2, "plugin_exit", "ok 0 \x01more", 5);
  EXPECT_EQ(answers_.to(2), refusal(2, "no rule allows these arguments"));
  EXPECT_TRUE(
      sandbox_->waitForLog("#WARNING#EXEC plugin: plugin_exit refused, no rule allows "
                           "these arguments; parameter: 'ok 0 \\x01more'\n",
                           kWait));

  const std::string pinned = sandbox_->path("plugins/plugin_exit");
  rewriteInPlace(pinned, "#!/bin/sh\necho replaced\n");
  server_->sendExec(3, "plugin_exit", "ok 0", 5);
  EXPECT_EQ(answers_.to(3), refusal(3, "the executable does not match its hash"));
  rewriteInPlace(pinned, original);
  server_->sendExec(4, "plugin_exit", "back 1", 5);
  EXPECT_EQ(answers_.to(4), once(qavel::execResponse(0, 4, "back\n", 1)));

  sandbox_->signal(SIGTERM);
  EXPECT_EQ(ending(kWait), kExitedNormally);
  EXPECT_NE(sandbox_->readFile("tmp/nivo-agent.prom")
                .find("\nnivo_agent_orders_refused_total{reason=\"not_allowed\"} 2\n"),
            std::string::npos);
}

// Confined, a plugin can neither truncate the agent's log, write in its directories, signal it nor
// connect anywhere; its rule's write= and connect= open exactly what they name.
TEST_F(AgentTest, ConfinedPluginsReachOnlyWhatTheirRuleOpens) {
  if (LandlockSupport::get().abi() < 6) GTEST_SKIP() << "needs Landlock ABI 6 (Linux 6.12)";
  addPlugin("plugin_intrude", "plugin_intrude.sh");
  addPlugin("plugin_opened", "plugin_intrude.sh");
  startServer();
  const std::string port = std::to_string(server_->port());
  sandbox_->writeFile("etc/plugin-rules", "plugin_intrude\nplugin_opened write=" +
                                              sandbox_->path("tmp") + " connect=" + port + "\n");
  sandbox_->setKey("NIVO", "plugin_rules", "/etc/nivo/plugin-rules");
  sandbox_->setKey("NIVO", "confine_plugins", "1");
  sandbox_->setKey("LOG", "metrics_file", "/tmp/nivo/nivo-agent.prom");
  sandbox_->setKey("NIVO", "server_url", "wss://" + serverAddress());
  sandbox_->start(agentTest::kDebugArguments);
  ASSERT_TRUE(answers_.waitForRegister());
  const std::string targets =
      sandbox_->path("agent.log") + " " + sandbox_->path("tmp") + " " + port;

  server_->sendExec(1, "plugin_intrude", targets, 5);
  EXPECT_EQ(answers_.to(1),
            once(qavel::execResponse(
                0, 1, "truncate refused\ncreate refused\nsignal refused\nconnect refused\n", 0)));
  server_->sendExec(2, "plugin_opened", targets, 1);
  EXPECT_EQ(answers_.to(2),
            once(qavel::execResponse(
                0, 2, "truncate refused\ncreate allowed\nsignal refused\nconnect allowed\n", 0)));
  EXPECT_TRUE(logHas("NIVO start"));
  const std::string gauge =
      "\nnivo_agent_confinement_abi " + std::to_string(LandlockSupport::get().abi()) + "\n";
  EXPECT_TRUE(eventually(
      [&] { return sandbox_->readFile("tmp/nivo-agent.prom").find(gauge) != std::string::npos; }));
}

}  // namespace
