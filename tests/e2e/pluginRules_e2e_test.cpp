// NIVO/plugin_rules and NIVO/confine_plugins, end to end: an order that no rule allows is answered
// at once and never run, logged for audit and counted; a pinned plugin runs from the file that was
// hashed; a confined plugin can neither truncate the agent's log, write in its directories, signal
// it nor connect anywhere, and its rule's write= and connect= open exactly what they name.
#include <openssl/evp.h>
#include <signal.h>

#include <iomanip>
#include <sstream>

#include "src/service/pluginConfinement.h"
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

TEST_F(AgentTest, ConfinedPluginsRunAsTheirRuleAllowsAndReachOnlyWhatItOpens) {
  if (LandlockSupport::get().abi() < 6) GTEST_SKIP() << "needs Landlock ABI 6 (Linux 6.12)";
  addPlugin("plugin_intrude", "plugin_intrude.sh");
  addPlugin("plugin_opened", "plugin_intrude.sh");
  startServer();
  const std::string port = std::to_string(server_->port());
  sandbox_->writeFile("etc/plugin-rules",
                      "plugin_exit sha256=" + sha256Hex(sandbox_->readFile("plugins/plugin_exit")) +
                          " args=[a-z]+ [0-3]\nplugin_intrude\nplugin_opened write=" +
                          sandbox_->path("tmp") + " connect=" + port + "\n");
  sandbox_->setKey("NIVO", "plugin_rules", "/etc/nivo/plugin-rules");
  sandbox_->setKey("NIVO", "confine_plugins", "1");
  sandbox_->setKey("LOG", "metrics_file", "/tmp/nivo/nivo-agent.prom");
  sandbox_->setKey("NIVO", "server_url", "wss://" + serverAddress());
  sandbox_->start(agentTest::kDebugArguments);
  ASSERT_TRUE(answers_.waitForRegister());

  server_->sendExec(1, "plugin_exit", "ok 1", 5);
  EXPECT_EQ(answers_.to(1), once(qavel::execResponse(0, 1, "ok\n", 1)));
  server_->sendExec(2, "plugin_exit", "ok 0 \x01more", 5);
  EXPECT_EQ(answers_.to(2),
            once(qavel::execResponse(
                2, 2, "EXEC plugin: plugin_exit not allowed: no rule allows these arguments", -1)));
  EXPECT_TRUE(
      logHas("#WARNING#EXEC plugin: plugin_exit refused, no rule allows these arguments; "
             "parameter: 'ok 0 \\x01more'\n"));

  const std::string targets =
      sandbox_->path("agent.log") + " " + sandbox_->path("tmp") + " " + port;
  server_->sendExec(3, "plugin_intrude", targets, 5);
  EXPECT_EQ(answers_.to(3),
            once(qavel::execResponse(
                0, 3, "truncate refused\ncreate refused\nsignal refused\nconnect refused\n", 0)));
  server_->sendExec(4, "plugin_opened", targets, 1);
  EXPECT_EQ(answers_.to(4),
            once(qavel::execResponse(
                0, 4, "truncate refused\ncreate allowed\nsignal refused\nconnect allowed\n", 0)));
  EXPECT_FALSE(logHas("NIVO/confine_plugins")) << "a kernel that confines it all: nothing to say";

  sandbox_->signal(SIGTERM);
  EXPECT_EQ(ending(kWait), kExitedNormally);
  const std::string metrics = sandbox_->readFile("tmp/nivo-agent.prom");
  for (const std::string& line :
       {std::string("nivo_agent_orders_refused_total{reason=\"not_allowed\"} 1"),
        "nivo_agent_confinement_abi " + std::to_string(LandlockSupport::get().abi())})
    EXPECT_NE(metrics.find("\n" + line + "\n"), std::string::npos) << line;
}

}  // namespace
