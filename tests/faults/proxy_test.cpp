// NIVO/proxy_url, end to end: the agent opens its link through Debian's squid, run with a
// configuration of the test's own on a loopback port, or through a fake proxy that answers
// garbage. A proxy that refuses or breaks ends the agent like any failed opening, with one line
// naming the proxy and why, and never the password.
#include <pwd.h>
#include <spawn.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>

#include "tests/faults/faultTest.h"
#include "tests/faults/loopbackListener.h"

namespace agentTest {
namespace {

const std::string kUser = "bob";
const std::string kPassword = "s3cr@t:x";
const std::string kPasswordInUrl = "s3cr%40t%3Ax";

// squid -N with Basic authentication for kUser, allowing CONNECT from 127.0.0.1 to `ports` only.
class Squid {
 public:
  explicit Squid(const std::vector<std::uint16_t>& ports) {
    try {
      start(ports);
    } catch (...) {
      stop();
      throw;
    }
  }
  ~Squid() { stop(); }
  Squid(const Squid&) = delete;
  Squid& operator=(const Squid&) = delete;

  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
  std::string read(const std::string& name) const {
    std::ifstream file(dir_ + "/" + name);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

 private:
  void start(const std::vector<std::uint16_t>& ports) {
    std::string pattern = "/var/tmp/nivo-squid.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp");
    dir_ = pattern;
    // squid drops to the proxy user, which must write its logs here.
    const passwd* const proxyUser = getpwnam("proxy");
    if (proxyUser == nullptr || chown(dir_.c_str(), proxyUser->pw_uid, proxyUser->pw_gid) != 0)
      throw std::runtime_error("no proxy user to own " + dir_);
    run("printf '%s:%s\\n' " + kUser + " \"$(openssl passwd -apr1 '" + kPassword + "')\" > " +
        dir_ + "/passwd");
    port_ = LoopbackPort().port();
    std::string allowed;
    for (const std::uint16_t port : ports) allowed += " " + std::to_string(port);
    std::ofstream(dir_ + "/squid.conf")
        << "http_port 127.0.0.1:" << port_ << "\npid_filename " << dir_ << "/squid.pid\n"
        << "access_log stdio:" << dir_ << "/access.log\ncache_log " << dir_ << "/cache.log\n"
        << "cache deny all\n"
        << "auth_param basic program /usr/lib/squid/basic_ncsa_auth " << dir_ << "/passwd\n"
        << "acl authed proxy_auth REQUIRED\nacl test_ports port" << allowed << "\n"
        << "http_access deny !authed\nhttp_access allow localhost CONNECT test_ports\n"
        << "http_access deny all\n";
    const std::string conf = dir_ + "/squid.conf";
    const char* const argv[] = {"squid", "-N", "-f", conf.c_str(), nullptr};
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);  // with its helpers
    const int failed =
        posix_spawnp(&pid_, "squid", nullptr, &attributes, const_cast<char* const*>(argv), environ);
    posix_spawnattr_destroy(&attributes);
    if (failed != 0) throw std::runtime_error("cannot start squid: " + std::to_string(failed));
    if (!eventually([this] { return accepts(); }))
      throw std::runtime_error("squid is not listening: " + read("cache.log"));
  }
  void stop() {
    // The whole group: squid and its authentication helpers.
    if (pid_ > 0 && kill(-pid_, SIGKILL) == 0) {
      int status;
      while (waitpid(pid_, &status, 0) == -1 && errno == EINTR) {
      }
    }
    std::error_code ignored;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
  }

  // A port free a moment ago, for squid to take.
  struct LoopbackPort {
    boost::asio::io_context io;
    boost::asio::ip::tcp::acceptor acceptor{io, {boost::asio::ip::address_v4::loopback(), 0}};
    std::uint16_t port() const { return acceptor.local_endpoint().port(); }
  };

  static void run(const std::string& command) {
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
  }
  bool accepts() const {
    boost::asio::io_context io;
    boost::asio::ip::tcp::socket socket(io);
    boost::system::error_code ec;
    socket.connect({boost::asio::ip::address_v4::loopback(), port_}, ec);
    return !ec;
  }

  std::string dir_;
  std::uint16_t port_ = 0;
  pid_t pid_ = -1;
};

// Reads a request to its blank line, answers with a reply whose second line is no header, and
// holds the connection.
class GarbageProxy : public LoopbackListener {
 public:
  GarbageProxy() { start(); }
  ~GarbageProxy() override { stop(); }

 private:
  void serve(Socket socket) override {
    held_.push_back(socket);
    auto request = std::make_shared<boost::asio::streambuf>();
    boost::asio::async_read_until(
        *socket, *request, "\r\n\r\n", [socket, request](boost::system::error_code ec, size_t) {
          static const char reply[] = "HTTP/1.1 200 Connection established\r\nno header\r\n\r\n";
          if (!ec)
            boost::asio::async_write(*socket, boost::asio::buffer(reply, sizeof reply - 1),
                                     [socket](boost::system::error_code, size_t) {});
        });
  }

  std::vector<Socket> held_;  // I/O thread
};

struct ProxyCase {
  const char* name;
  std::string userPart;  // of proxy_url, before the "@"; empty: none
  bool garbageProxy;     // the fake proxy instead of squid
  bool ipv6Server;       // the server at [::1]
  bool portDenied;       // squid allows CONNECT to another port than the server's
  const char* failure;   // nullptr: the link opens
};

void PrintTo(const ProxyCase& proxyCase, std::ostream* out) { *out << proxyCase.name; }

class ProxyTest : public FaultTest, public ::testing::WithParamInterface<ProxyCase> {};

TEST_P(ProxyTest, LinkOpensThroughTheProxyOrSaysWhyNot) {
  const ProxyCase& proxyCase = GetParam();
  qavel::ServerOptions options;
  options.address = proxyCase.ipv6Server ? "::1" : "127.0.0.1";
  startServer(options);
  const std::uint16_t allowed = proxyCase.portDenied ? server_->port() + 1 : server_->port();
  Squid squid({allowed});
  GarbageProxy garbage;
  const std::string proxyAddress =
      proxyCase.garbageProxy ? "127.0.0.1:" + std::to_string(garbage.port()) : squid.address();
  const std::string userPart = proxyCase.userPart.empty() ? "" : proxyCase.userPart + "@";
  const std::string target =
      (proxyCase.ipv6Server ? "[::1]:" : "127.0.0.1:") + std::to_string(server_->port());
  const std::string shownUser = proxyCase.userPart.empty() ? "" : kUser + ":***@";
  sandbox_->setKey("NIVO", "server_url", "wss://" + target);
  sandbox_->setKey("NIVO", "proxy_url", "http://" + userPart + proxyAddress);
  sandbox_->start();

  if (proxyCase.failure == nullptr) {
    ASSERT_TRUE(answers_.waitForRegister());
    server_->sendExec(1, "plugin_exit", "tunnel", 5);
    EXPECT_EQ(answers_.to(1), once(qavel::execResponse(0, 1, "tunnel\n", 0)));
    sandbox_->signal(SIGTERM);
    EXPECT_EQ(ending(kWait), kExitedNormally);
    // squid logs a tunnel once it has closed.
    EXPECT_TRUE(eventually([&] {
      return squid.read("access.log").find("CONNECT " + target + " " + kUser) != std::string::npos;
    })) << squid.read("access.log");
  } else {
    EXPECT_EQ(ending(kWait), kExitedNormally);
    EXPECT_TRUE(logHas("#ERRORS#NIVO link to wss://" + target + " through http://" + shownUser +
                       proxyAddress + " not opened: " + proxyCase.failure))
        << sandbox_->log();
    EXPECT_TRUE(logHas(kLinkFailure + "Error sending message: "));
    EXPECT_FALSE(answers_.waitForRegister(std::chrono::seconds(0)));
  }
  for (const std::string& shown :
       {sandbox_->log(), sandbox_->readFile("status"), sandbox_->output() + sandbox_->errors()})
    EXPECT_EQ(shown.find("s3cr"), std::string::npos) << shown;
}

INSTANTIATE_TEST_SUITE_P(
    Proxies, ProxyTest,
    ::testing::Values(
        ProxyCase{"Tunnel", kUser + ":" + kPasswordInUrl, false, false, false, nullptr},
        ProxyCase{"TunnelToIpv6Server", kUser + ":" + kPasswordInUrl, false, true, false, nullptr},
        ProxyCase{"WrongPassword", kUser + ":wrong", false, false, false,
                  "the proxy answered 407 (Proxy Authentication Required)"},
        ProxyCase{"PortRefused", kUser + ":" + kPasswordInUrl, false, false, true,
                  "the proxy answered 403 (Forbidden)"},
        ProxyCase{"ReplyNotHttp", "", true, false, false,
                  "the proxy answered something that is not an HTTP reply: "}),
    [](const ::testing::TestParamInfo<ProxyCase>& info) { return info.param.name; });

}  // namespace
}  // namespace agentTest
