// NIVO/fallback_urls, end to end: when server_url cannot be opened, the agent tries each fallback
// server in turn, says for each one that fails its URL and why, and runs with the first that opens.
#include "tests/faults/certificates.h"
#include "tests/faults/faultTest.h"

namespace agentTest {
namespace {

using FallbackTest = FaultTest;

TEST_F(FallbackTest, AgentRunsWithTheFirstServerThatOpens) {
  Certificates pki(sandbox_->dir());
  pki.authority("a");
  pki.certificate("named", "localhost", "DNS:localhost,IP:127.0.0.1", "a");
  qavel::ServerOptions trusted;
  trusted.certFile = pki.pem("named");
  trusted.keyFile = pki.key("named");
  startServer(trusted);
  qavel::QavelServer untrusted;  // its throwaway certificate is signed by no CA the agent trusts
  untrusted.start();

  const std::string closed = "wss://127.0.0.1:1";
  const std::string refused = "wss://127.0.0.1:" + std::to_string(untrusted.port());
  const std::string good = "wss://" + serverAddress();
  sandbox_->setKey("SSL", "verify_server", "1");
  sandbox_->setKey("SSL", "cafile", pki.pem("a"));
  sandbox_->setKey("NIVO", "server_url", closed);
  sandbox_->setKey("NIVO", "fallback_urls", refused + " " + good);
  sandbox_->start();

  ASSERT_TRUE(answers_.waitForRegister());
  server_->sendExec(1, "plugin_exit", "fallback", 5);
  EXPECT_EQ(answers_.to(1), once(qavel::execResponse(0, 1, "fallback\n", 0)));
  EXPECT_TRUE(logHas("#ERRORS#NIVO link to " + closed +
                     " not opened: Underlying Transport Error: Connection refused\n"));
  EXPECT_TRUE(logHas("#ERRORS#NIVO link to " + refused +
                     " not opened: TLS handshake failed: server certificate refused: "));
  EXPECT_TRUE(logHas("#NOTICE#NIVO link open to " + good + "\n"));
  EXPECT_TRUE(untrusted.waitForFrames(1, std::chrono::seconds(0)).empty());
}

}  // namespace
}  // namespace agentTest
