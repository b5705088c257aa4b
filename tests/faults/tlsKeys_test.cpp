// The link's TLS keys, end to end: SSL/verify_server makes the agent check the server's chain and
// name, SSL/client_key makes it present local_cert (mutual TLS). Without them the agent trusts any
// server and presents nothing, as it always has. Certificates are made for each test with the
// openssl command, in the agent's sandbox.
#include <filesystem>

#include "tests/faults/faultTest.h"

namespace agentTest {
namespace {

const std::string kRefused = "ENDPOINT SOCKET: server certificate refused: ";

// Throwaway EC keys and certificates in <dir>/pki: <name>.pem and <name>.key.
class Certificates {
 public:
  explicit Certificates(const std::string& dir) : dir_(dir + "/pki") {
    std::filesystem::create_directories(dir_);
  }

  // `text` with each "PKI/" made the directory of the certificates.
  std::string expand(std::string text) const {
    for (std::size_t at; (at = text.find("PKI/")) != std::string::npos;) text.replace(at, 3, dir_);
    return text;
  }
  std::string pem(const std::string& name) const { return dir_ + "/" + name + ".pem"; }
  std::string key(const std::string& name) const { return dir_ + "/" + name + ".key"; }

  void authority(const std::string& name) { make(name, "/CN=NIVO test CA " + name, ""); }

  // Signed by `authority`; `altNames` as for subjectAltName ("DNS:localhost,IP:127.0.0.1").
  void certificate(const std::string& name, const std::string& commonName,
                   const std::string& altNames, const std::string& authority) {
    make(name, "/CN=" + commonName,
         " -addext subjectAltName=" + altNames +
             " -addext basicConstraints=critical,CA:FALSE -CA " + pem(authority) + " -CAkey " +
             key(authority));
  }

 private:
  void make(const std::string& name, const std::string& subject, const std::string& extra) {
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 -subj '" +
        subject + "' -keyout " + key(name) + " -out " + pem(name) + extra + " >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
  }

  const std::string dir_;
};

struct TrustCase {
  const char* name;
  const char* serverCertificate;       // one of those made in SetUp
  const char* host;                    // of the agent's server URL
  const char* verifyServer;            // SSL/verify_server; nullptr: absent
  const char* caFile;                  // SSL/cafile: "a" for CA a's file, or as written
  const char* refusal;                 // OpenSSL's reason; nullptr: accepted
  const char* startupError = nullptr;  // the agent ends before it connects, saying this
};

void PrintTo(const TrustCase& trust, std::ostream* out) { *out << trust.name; }

class ServerTrustTest : public FaultTest, public ::testing::WithParamInterface<TrustCase> {};

// Accepted: the agent registers over the link. Refused: it ends like after any failed connect,
// having said why, and the server never hears from it. A CA file it cannot read ends it at once.
TEST_P(ServerTrustTest, AgentTalksOnlyToTheServerItTrusts) {
  const TrustCase& trust = GetParam();
  Certificates pki(sandbox_->dir());
  pki.authority("a");
  pki.authority("b");
  pki.certificate("named", "localhost", "DNS:localhost,IP:127.0.0.1", "a");
  pki.certificate("name-only", "localhost", "DNS:localhost", "a");
  pki.certificate("other-name", "other.example", "DNS:other.example", "a");
  pki.certificate("other-ca", "localhost", "DNS:localhost,IP:127.0.0.1", "b");

  if (trust.verifyServer != nullptr) sandbox_->setKey("SSL", "verify_server", trust.verifyServer);
  sandbox_->setKey("SSL", "cafile", trust.caFile == std::string("a") ? pki.pem("a") : trust.caFile);
  qavel::ServerOptions options;
  options.certFile = pki.pem(trust.serverCertificate);
  options.keyFile = pki.key(trust.serverCertificate);
  startServer(options);
  sandbox_->setKey("NIVO", "server_url",
                   std::string("wss://") + trust.host + ":" + std::to_string(server_->port()));
  sandbox_->start();

  if (trust.startupError != nullptr) {
    EXPECT_EQ(ending(kWait), kExitedNormally);
    EXPECT_TRUE(logHas("#ERRORS#" + kLinkFailure + trust.startupError + "\n"));
    EXPECT_FALSE(server_->waitForConnection(std::chrono::seconds(0)));
  } else if (trust.refusal == nullptr) {
    ASSERT_TRUE(answers_.waitForRegister());
    const std::optional<qavel::ConnectionInfo> link = server_->waitForConnection(kWait);
    ASSERT_TRUE(link);
    EXPECT_EQ(link->serverName, trust.host);  // SNI
    EXPECT_EQ(link->clientSubject, "");       // no client_key: no certificate presented
    EXPECT_TRUE(sandbox_->waitForLog("Pool exec is running", kWait));
    EXPECT_FALSE(logHas(kRefused));
  } else {
    EXPECT_EQ(ending(kWait), kExitedNormally);
    EXPECT_TRUE(logHas("#ERRORS#" + kRefused + trust.refusal + " (depth 0, "));
    EXPECT_TRUE(logHas(kLinkFailure + "Error sending message: "));
    EXPECT_TRUE(server_->waitForFrames(1, std::chrono::seconds(0)).empty());
  }
}

INSTANTIATE_TEST_SUITE_P(
    Certificates, ServerTrustTest,
    ::testing::Values(
        TrustCase{"NameSignedByTrustedCa", "named", "localhost", "1", "a", nullptr},
        TrustCase{"AddressSignedByTrustedCa", "named", "127.0.0.1", "1", "a", nullptr},
        TrustCase{"MadeForAnotherName", "other-name", "localhost", "1", "a", "hostname mismatch"},
        TrustCase{"WithoutTheAddress", "name-only", "127.0.0.1", "1", "a", "IP address mismatch"},
        TrustCase{"SignedByAnotherCa", "other-ca", "localhost", "1", "a",
                  "unable to get local issuer certificate"},
        // The throwaway CA is in no system store.
        TrustCase{"SystemStoreWhenCafileEmpty", "named", "localhost", "1", "",
                  "unable to get local issuer certificate"},
        TrustCase{"CafileMissing", "named", "localhost", "1", "/etc/nivo/missing.pem", nullptr,
                  "SSLException: error in init session cannot load the trusted certificates of "
                  "/etc/nivo/missing.pem: No such file or directory"},
        TrustCase{"AnotherNameUnverified", "other-name", "localhost", nullptr, "a", nullptr},
        TrustCase{"AnotherCaUnverified", "other-ca", "localhost", "0", "a", nullptr}),
    [](const ::testing::TestParamInfo<TrustCase>& info) { return info.param.name; });

struct ClientCertificateCase {
  const char* name;
  const char* localCert;  // a certificate made in the test; nullptr: the sandbox's missing file
  const char* clientKey;  // a key made in the test; nullptr: no client_key
  // The agent's start-up error, PKI/ for the certificates' directory; nullptr: it starts, and is
  // accepted when it presents the certificate the server asks for.
  const char* startupError;
};

void PrintTo(const ClientCertificateCase& client, std::ostream* out) { *out << client.name; }

class ClientCertificateTest : public FaultTest,
                              public ::testing::WithParamInterface<ClientCertificateCase> {};

// The server accepts only clients whose certificate CA "a" signed.
TEST_P(ClientCertificateTest, AgentPresentsItsCertificateOnlyWithItsKey) {
  const ClientCertificateCase& client = GetParam();
  Certificates pki(sandbox_->dir());
  pki.authority("a");
  pki.certificate("agent", "nivo-agent", "DNS:nivo-agent", "a");
  pki.certificate("stranger", "stranger", "DNS:stranger", "a");

  const std::string certificate =
      client.localCert != nullptr ? pki.pem(client.localCert) : "/etc/nivo/agent.pem";
  sandbox_->setKey("SSL", "local_cert", certificate);
  if (client.clientKey != nullptr) sandbox_->setKey("SSL", "client_key", pki.key(client.clientKey));
  qavel::ServerOptions options;
  options.clientCaFile = pki.pem("a");
  launch(options);

  if (client.startupError != nullptr) {
    EXPECT_EQ(ending(kWait), kExitedNormally);
    const std::string error = pki.expand(client.startupError);
    EXPECT_TRUE(logHas("#ERRORS#" + kLinkFailure + error + "\n")) << "want: " << error;
    EXPECT_FALSE(server_->waitForConnection(std::chrono::seconds(0)));
  } else if (client.clientKey != nullptr) {
    const std::optional<qavel::ConnectionInfo> link = server_->waitForConnection(kWait);
    ASSERT_TRUE(link);
    EXPECT_EQ(link->clientSubject, "/CN=nivo-agent");
    ASSERT_TRUE(answers_.waitForRegister());
    server_->sendExec(1, "plugin_exit", "mutual", 5);
    EXPECT_EQ(answers_.to(1), once(qavel::execResponse(0, 1, "mutual\n", 0)));
  } else {
    // As without the key: no certificate, so the handshake fails and the agent ends as after any
    // failed connect.
    EXPECT_EQ(ending(kWait), kExitedNormally);
    EXPECT_TRUE(logHas(kLinkFailure + "Error sending message: "));
    EXPECT_FALSE(answers_.waitForRegister(std::chrono::seconds(0)));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Keys, ClientCertificateTest,
    ::testing::Values(
        ClientCertificateCase{"MatchingKey", "agent", "agent", nullptr},
        ClientCertificateCase{"NoClientKey", "agent", nullptr, nullptr},
        ClientCertificateCase{"KeyOfAnotherCertificate", "agent", "stranger",
                              "client key PKI/stranger.key does not fit client certificate "
                              "PKI/agent.pem: key values mismatch"},
        ClientCertificateCase{"KeyMissing", "agent", "absent",
                              "cannot read client key PKI/absent.key: No such file or directory"},
        ClientCertificateCase{"CertificateMissing", nullptr, "agent",
                              "cannot read client certificate /etc/nivo/agent.pem: No such file "
                              "or directory"}),
    [](const ::testing::TestParamInfo<ClientCertificateCase>& info) { return info.param.name; });

}  // namespace
}  // namespace agentTest
