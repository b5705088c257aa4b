// The agent's link failing: the server gone mid-work, peers that never let the link open, a server
// that does not speak "qavel", a frame or a result too large for one side. Whatever happens, the
// agent ends with status 0 after its link-failure line, and never crashes.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <stdexcept>
#include <system_error>
#include <thread>

#include "src/common/uniqueFd.h"
#include "tests/faults/faultTest.h"

namespace agentTest {
namespace {

const std::string kRegistering = "STATUS=REGISTERING          \nREGISTER=NONE               \n";

// A peer on 127.0.0.1 that breaks the opening of the agent's link: nothing listens on its port, or
// it accepts and stays silent (the kernel accepts for a listener that never calls accept), or it
// answers the TLS ClientHello with plain text, or it completes TLS and answers the WebSocket
// upgrade request with a fixed HTTP response. The last two serve one connection on a thread.
class RawPeer {
 public:
  enum class Behaviour { Refuse, Silent, PlainText, TlsReply };

  // The TLS peer's certificate goes to `dir`.
  RawPeer(Behaviour behaviour, std::string reply, const std::string& dir)
      : behaviour_(behaviour), reply_(std::move(reply)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener_.get() < 0 ||
        bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        (behaviour != Behaviour::Refuse && listen(listener_.get(), 8) != 0))
      throw std::system_error(errno, std::generic_category(), "raw peer on 127.0.0.1");
    port_ = ntohs(address.sin_port);
    if (behaviour == Behaviour::TlsReply &&
        (!makeCertificate(dir) || context_ == nullptr ||
         SSL_CTX_use_certificate_file(context_.get(), (dir + "/cert.pem").c_str(),
                                      SSL_FILETYPE_PEM) != 1 ||
         SSL_CTX_use_PrivateKey_file(context_.get(), (dir + "/key.pem").c_str(),
                                     SSL_FILETYPE_PEM) != 1))
      throw std::runtime_error("raw peer: no TLS certificate");
    if (behaviour == Behaviour::PlainText || behaviour == Behaviour::TlsReply)
      thread_ = std::thread([this] { serve(); });
  }

  ~RawPeer() {
    shutdown(listener_.get(), SHUT_RDWR);  // ends an accept() still waiting
    if (thread_.joinable()) thread_.join();
  }

  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;

  std::uint16_t port() const { return port_; }

  // The HTTP request that the TLS peer read, once it has served its connection.
  std::string request() {
    if (thread_.joinable()) thread_.join();
    return request_;
  }

 private:
  void serve() {
    const UniqueFd connection(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    // Bounds every read and write, so that a connection the agent abandons never holds the test.
    const timeval limit{5, 0};
    if (connection.get() < 0 ||
        setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0 ||
        setsockopt(connection.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0)
      return;
    if (behaviour_ == Behaviour::PlainText) {
      char hello[4096];
      ssize_t got;
      while ((got = recv(connection.get(), hello, sizeof hello, 0)) == -1 && errno == EINTR) {
      }
      if (got > 0) send(connection.get(), reply_.data(), reply_.size(), MSG_NOSIGNAL);
      return;
    }
    const std::unique_ptr<SSL, decltype(&SSL_free)> tls(SSL_new(context_.get()), SSL_free);
    if (tls == nullptr || SSL_set_fd(tls.get(), connection.get()) != 1 ||
        SSL_accept(tls.get()) != 1)
      return;
    char chunk[4096];
    int got;
    while (request_.find("\r\n\r\n") == std::string::npos && request_.size() < 65536 &&
           (got = SSL_read(tls.get(), chunk, sizeof chunk)) > 0)
      request_.append(chunk, static_cast<std::size_t>(got));
    SSL_write(tls.get(), reply_.data(), static_cast<int>(reply_.size()));
    SSL_shutdown(tls.get());
  }

  const Behaviour behaviour_;
  const std::string reply_;
  const UniqueFd listener_{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_{SSL_CTX_new(TLS_server_method()),
                                                                   SSL_CTX_free};
  std::uint16_t port_ = 0;
  std::string request_;  // written by the thread alone until it is joined
  std::thread thread_;
};

class LinkFaultTest : public FaultTest {};

// The link ends without a close handshake, as when the server is killed, while both monitor
// workers and the web worker run a plugin that waits for "release": their results have nowhere to
// go.
TEST_F(LinkFaultTest, ServerGoneWhileOrdersRunEndsAgentWithStatusZero) {
  addPlugin("pool_block", "pool_block.sh");
  launch();
  ASSERT_TRUE(answers_.waitForRegister());
  const int priorities[] = {5, 5, 1};
  for (int id = 0; id < 3; ++id)
    server_->sendExec(id, "pool_block",
                      marker("started-" + std::to_string(id)) + " " + marker("release"),
                      priorities[id]);
  for (int id = 0; id < 3; ++id) ASSERT_TRUE(waitForMarker("started-" + std::to_string(id)));

  server_->dropConnection();
  server_.reset();
  const auto gone = Clock::now();
  release("release");
  EXPECT_EQ(ending(kPingWait), kExitedNormally);
  std::cout << "agent ended "
            << std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - gone).count()
            << " ms after the server went" << std::endl;
  EXPECT_TRUE(logHas(kLinkFailure));
}

struct OpeningFault {
  const char* name;
  RawPeer::Behaviour behaviour;
  std::string reply;
  std::string error;  // of the failed "REGISTER"
};

const char kBadRequest[] = "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n";
const char kGone[] = "Bad Connection";

void PrintTo(const OpeningFault& fault, std::ostream* out) { *out << fault.name; }

class OpeningFaultTest : public FaultTest, public ::testing::WithParamInterface<OpeningFault> {};

// The agent sends "REGISTER" 0.6 s after it has started to connect, without waiting for the link
// to open. On a link that failed by then, the connection is gone ("Bad Connection"); on one still
// opening, the send is refused ("invalid state").
TEST_P(OpeningFaultTest, AgentEndsWithStatusZeroBeforeRegistering) {
  RawPeer peer(GetParam().behaviour, GetParam().reply, sandbox_->dir());
  sandbox_->setKey("NIVO", "server_url", "wss://127.0.0.1:" + std::to_string(peer.port()));
  sandbox_->start();
  EXPECT_EQ(ending(kWait), kExitedNormally);
  EXPECT_TRUE(logHas(kLinkFailure + "Error sending message: " + GetParam().error + "\n"));
  EXPECT_FALSE(logHas("REGISTER SUCCESS"));
  EXPECT_EQ(sandbox_->readFile("status"), kRegistering);
  if (GetParam().behaviour == RawPeer::Behaviour::TlsReply) {
    EXPECT_NE(peer.request().find("\r\nSec-WebSocket-Protocol: qavel\r\n"), std::string::npos)
        << peer.request();
  }
}

INSTANTIATE_TEST_SUITE_P(
    Peers, OpeningFaultTest,
    ::testing::Values(
        OpeningFault{"NothingListening", RawPeer::Behaviour::Refuse, "", kGone},
        // TLS would give up after 5 s; the agent has given up on the link before.
        OpeningFault{"SilentAfterTcpAccept", RawPeer::Behaviour::Silent, "", "invalid state"},
        OpeningFault{"PlainTextAnswerToTls", RawPeer::Behaviour::PlainText, kBadRequest, kGone},
        // What a WebSocket++ server answers when its validate handler refuses the connection.
        OpeningFault{"HandshakeRefusedWith400", RawPeer::Behaviour::TlsReply, kBadRequest, kGone},
        OpeningFault{"HandshakeRefusedWith426", RawPeer::Behaviour::TlsReply,
                     "HTTP/1.1 426 Upgrade Required\r\nSec-WebSocket-Version: 13\r\n"
                     "Content-Length: 0\r\n\r\n",
                     kGone}),
    [](const ::testing::TestParamInfo<OpeningFault>& info) { return info.param.name; });

// RFC 6455 lets a server that speaks none of the offered subprotocols accept the connection
// without naming one. The agent does not look at the server's choice: it works with such a server.
TEST_F(LinkFaultTest, ServerThatSelectsNoSubprotocolIsServedLikeAnyOther) {
  qavel::ServerOptions options;
  options.selectSubprotocol = false;
  launch(options);
  const std::optional<qavel::ConnectionInfo> link = server_->waitForConnection(kWait);
  ASSERT_TRUE(link);
  EXPECT_EQ(link->offeredSubprotocols, std::vector<std::string>{"qavel"});
  EXPECT_EQ(link->selectedSubprotocol, "");
  ASSERT_TRUE(answers_.waitForRegister());
  server_->sendExec(1, "plugin_exit", "served", 5);
  EXPECT_EQ(answers_.to(1), once(qavel::execResponse(0, 1, "served\n", 0)));
}

// The peer, like any WebSocket++ server left at its defaults, refuses a message over 32,000,000
// bytes by dropping the link. The agent learns of it at its next ping.
TEST_F(LinkFaultTest, ResultTooLargeForServerEndsAgentAtNextPing) {
  // A sanitized agent takes about a second per megabyte: it gets an output just over the limit.
  constexpr long kOutputBytes = kSanitized ? 32L * 1000 * 1000 : 50L * 1024 * 1024;
  addPlugin("plugin_big", "plugin_big.sh");
  ASSERT_TRUE(launchAndWarmUp(kProductionArguments));
  server_->sendExec(1, "plugin_big", std::to_string(kOutputBytes), 5);
  EXPECT_TRUE(server_->waitForClose(kSanitized ? std::chrono::seconds(120) : kWait));
  EXPECT_EQ(ending(kPingWait), kExitedNormally);
  EXPECT_TRUE(logHas(kLinkFailure));
  EXPECT_TRUE(answers_.to(1, std::chrono::seconds(0)).empty());
}

// The agent's own WebSocket++ client refuses an inbound message over 32,000,000 bytes from its
// header, before reading it, and closes the link (1009, message too big; the peer, still sending,
// may see the connection reset instead). The agent then ends at its next ping.
TEST_F(LinkFaultTest, FrameTooLargeForAgentEndsAgentAtNextPing) {
  ASSERT_TRUE(launchAndWarmUp(kProductionArguments));
  server_->sendRaw(std::string(33 * 1000 * 1000, ' '));
  EXPECT_TRUE(server_->waitForClose(kWait));
  EXPECT_EQ(ending(kPingWait), kExitedNormally);
  EXPECT_TRUE(logHas(kLinkFailure));
}

}  // namespace
}  // namespace agentTest
