// The link's TLS keys, end to end: SSL/verify_server makes the agent check the server's chain and
// name, SSL/client_key makes it present local_cert (mutual TLS). Certificates are made for each
// test with the openssl command, in the agent's sandbox.
#include "tests/faults/certificates.h"
#include "tests/faults/faultTest.h"

namespace agentTest {
namespace {

const std::string kRefused = "ENDPOINT SOCKET: server certificate refused: ";

struct TrustCase {
  const char* name;
  const char* caFile;                  // SSL/cafile: "a" for CA a's file, or as written
  const char* refusal;                 // OpenSSL's reason, when the handshake fails
  const char* startupError = nullptr;  // the agent ends before it connects, saying this
};

void PrintTo(const TrustCase& trust, std::ostream* out) { *out << trust.name; }

class ServerTrustTest : public FaultTest, public ::testing::WithParamInterface<TrustCase> {};

// With SSL/verify_server=1, a server it cannot verify ends the agent like any failed connect,
// having said why, and the server never hears from it. A CA file it cannot read ends it at once.
TEST_P(ServerTrustTest, AgentTalksOnlyToTheServerItTrusts) {
  const TrustCase& trust = GetParam();
  Certificates pki(sandbox_->dir());
  pki.authority("a");
  pki.certificate("named", "localhost", "DNS:localhost,IP:127.0.0.1", "a");

  sandbox_->setKey("SSL", "verify_server", "1");
  sandbox_->setKey("SSL", "cafile", trust.caFile == std::string("a") ? pki.pem("a") : trust.caFile);
  qavel::ServerOptions options;
  options.certFile = pki.pem("named");
  options.keyFile = pki.key("named");
  startServer(options);
  sandbox_->setKey("NIVO", "server_url", "wss://localhost:" + std::to_string(server_->port()));
  sandbox_->start();

  EXPECT_EQ(ending(kWait), kExitedNormally);
  if (trust.startupError != nullptr) {
    EXPECT_TRUE(logHas("#ERRORS#" + kLinkFailure + trust.startupError + "\n"));
    EXPECT_FALSE(server_->waitForConnection(std::chrono::seconds(0)));
  } else {
    EXPECT_TRUE(logHas("#ERRORS#" + kRefused + trust.refusal + " (depth 0, "));
    EXPECT_TRUE(logHas(kLinkFailure + "Error sending message: "));
    EXPECT_TRUE(server_->waitForFrames(1, std::chrono::seconds(0)).empty());
  }
}

INSTANTIATE_TEST_SUITE_P(
    Certificates, ServerTrustTest,
    ::testing::Values(
        // The throwaway CA is in no system store.
        TrustCase{"SystemStoreWhenCafileEmpty", "", "unable to get local issuer certificate"},
        TrustCase{"CafileMissing", "/etc/nivo/missing.pem", nullptr,
                  "SSLException: error in init session cannot load the trusted certificates of "
                  "/etc/nivo/missing.pem: No such file or directory"}),
    [](const ::testing::TestParamInfo<TrustCase>& info) { return info.param.name; });

using ClientCertificateTest = FaultTest;

// SSL/client_key makes the agent present local_cert; the server accepts only clients whose
// certificate CA "a" signed.
TEST_F(ClientCertificateTest, AgentPresentsItsCertificateWithItsKey) {
  Certificates pki(sandbox_->dir());
  pki.authority("a");
  pki.certificate("agent", "nivo-agent", "DNS:nivo-agent", "a");
  sandbox_->setKey("SSL", "local_cert", pki.pem("agent"));
  sandbox_->setKey("SSL", "client_key", pki.key("agent"));
  qavel::ServerOptions options;
  options.clientCaFile = pki.pem("a");
  launch(options);

  const std::optional<qavel::ConnectionInfo> link = server_->waitForConnection(kWait);
  ASSERT_TRUE(link);
  EXPECT_EQ(link->clientSubject, "/CN=nivo-agent");
  ASSERT_TRUE(answers_.waitForRegister());
  server_->sendExec(1, "plugin_exit", "mutual", 5);
  EXPECT_EQ(answers_.to(1), once(qavel::execResponse(0, 1, "mutual\n", 0)));
}

}  // namespace
}  // namespace agentTest
