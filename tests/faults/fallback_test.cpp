// NIVO/fallback_urls with the link's TLS keys, end to end: when server_url cannot be opened, the
// agent tries each fallback server in turn, says for each one that fails its URL and why, and runs
// with the first that opens. With SSL/verify_server it opens only a server whose chain and name it
// can verify; with SSL/client_key it presents local_cert (mutual TLS). Certificates are made with
// the openssl command, in the agent's sandbox.
#include "tests/faults/certificates.h"
#include "tests/faults/faultTest.h"

namespace agentTest {
namespace {

using FallbackTest = FaultTest;

TEST_F(FallbackTest, AgentRunsWithTheFirstServerItTrustsAndPresentsItsCertificateThere) {
  Certificates pki(sandbox_->dir());
  pki.authority("a");
  pki.certificate("named", "localhost", "DNS:localhost,IP:127.0.0.1", "a");
  pki.certificate("agent", "nivo-agent", "DNS:nivo-agent", "a");
  qavel::ServerOptions trusted;
  trusted.certFile = pki.pem("named");
  trusted.keyFile = pki.key("named");
  trusted.clientCaFile = pki.pem("a");  // only clients whose certificate CA "a" signed
  startServer(trusted);
  qavel::QavelServer untrusted;  // its throwaway certificate is signed by no CA the agent trusts
  untrusted.start();

  const std::string closed = "wss://127.0.0.1:1";
  const std::string refused = "wss://127.0.0.1:" + std::to_string(untrusted.port());
  const std::string good = "wss://localhost:" + std::to_string(server_->port());  // by its name
  sandbox_->setKey("SSL", "verify_server", "1");
  sandbox_->setKey("SSL", "cafile", pki.pem("a"));
  sandbox_->setKey("SSL", "local_cert", pki.pem("agent"));
  sandbox_->setKey("SSL", "client_key", pki.key("agent"));
  sandbox_->setKey("NIVO", "server_url", closed);
  sandbox_->setKey("NIVO", "fallback_urls", refused + " " + good);
  sandbox_->start();

  ASSERT_TRUE(answers_.waitForRegister());
  server_->sendExec(1, "plugin_exit", "fallback", 5);
  EXPECT_EQ(answers_.to(1), once(qavel::execResponse(0, 1, "fallback\n", 0)));
  const std::optional<qavel::ConnectionInfo> link = server_->waitForConnection(kWait);
  ASSERT_TRUE(link);
  EXPECT_EQ(link->clientSubject, "/CN=nivo-agent");
  EXPECT_TRUE(logHas("#ERRORS#NIVO link to " + closed +
                     " not opened: Underlying Transport Error: Connection refused\n"));
  EXPECT_TRUE(
      logHas("#ERRORS#ENDPOINT SOCKET: server certificate refused: self-signed "
             "certificate (depth 0, "));
  EXPECT_TRUE(logHas("#ERRORS#NIVO link to " + refused +
                     " not opened: TLS handshake failed: server certificate refused: "));
  EXPECT_TRUE(logHas("#NOTICE#NIVO link open to " + good + "\n"));
  EXPECT_TRUE(untrusted.waitForFrames(1, std::chrono::seconds(0)).empty());
}

}  // namespace
}  // namespace agentTest
