// NIVO/proxy_url, end to end: the agent opens its link through Debian's squid, run with a
// configuration of the test's own on a loopback port, or through a fake proxy that answers
// garbage. A proxy that refuses or breaks ends the agent like any failed opening, with one line
// naming the proxy and why, and never the password.
#include <pwd.h>

#include <filesystem>
#include <fstream>

#include "tests/common/childProgram.h"
#include "tests/faults/faultTest.h"
#include "tests/faults/loopbackListener.h"

namespace agentTest {
namespace {

const std::string kUser = "bob";
const std::string kPassword = "s3cr@t:x";  // "s3cr%40t%3Ax" in a URL

// squid -N with Basic authentication for kUser, allowing CONNECT from 127.0.0.1 to one port only.
class Squid {
 public:
  // Its files in `directory`, made for squid's own user, whom the directory above must let pass.
  Squid(const std::string& directory, std::uint16_t allowedPort)
      : dir_(prepared(directory)), port_(freeLoopbackPort()), program_(start(allowedPort)) {
    if (!eventually(
            [this] { return read("cache.log").find("Accepting HTTP") != std::string::npos; }))
      throw std::runtime_error("squid does not listen: " + read("cache.log"));
  }

  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
  std::string read(const std::string& name) const {
    std::ifstream file(dir_ + "/" + name);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

 private:
  static std::string prepared(const std::string& directory) {
    std::filesystem::create_directories(directory);
    const passwd* const proxyUser = getpwnam("proxy");  // squid drops to it
    if (proxyUser == nullptr || chown(directory.c_str(), proxyUser->pw_uid, proxyUser->pw_gid) != 0)
      throw std::runtime_error("no proxy user to own " + directory);
    const std::string passwords = "printf '" + kUser + ":%s\\n' \"$(openssl passwd -apr1 '" +
                                  kPassword + "')\" >" + directory + "/passwd";
    if (std::system(passwords.c_str()) != 0) throw std::runtime_error("failed: " + passwords);
    return directory;
  }

  ChildProgram start(std::uint16_t allowedPort) const {
    const std::string conf = dir_ + "/squid.conf";
    std::ofstream(conf) << "http_port 127.0.0.1:" << port_ << "\npid_filename " << dir_
                        << "/squid.pid\naccess_log stdio:" << dir_ << "/access.log\n"
                        << "cache_log " << dir_ << "/cache.log\ncache deny all\n"
                        << "auth_param basic program /usr/lib/squid/basic_ncsa_auth " << dir_
                        << "/passwd\nacl authed proxy_auth REQUIRED\nacl test_port port "
                        << allowedPort << "\nhttp_access deny !authed\n"
                        << "http_access allow localhost CONNECT test_port\nhttp_access deny all\n";
    return ChildProgram({"squid", "-N", "-f", conf});
  }

  const std::string dir_;
  const std::uint16_t port_;
  const ChildProgram program_;  // its whole group: squid and its authentication helpers
};

// Reads a request to its blank line and answers with a reply whose second line is no header.
void answerGarbage(LoopbackListener::Socket socket, boost::asio::io_context&) {
  auto request = std::make_shared<boost::asio::streambuf>();
  boost::asio::async_read_until(
      *socket, *request, "\r\n\r\n", [socket, request](boost::system::error_code ec, size_t) {
        static const char reply[] = "HTTP/1.1 200 Connection established\r\nno header\r\n\r\n";
        if (!ec)
          boost::asio::async_write(*socket, boost::asio::buffer(reply, sizeof reply - 1),
                                   [socket](boost::system::error_code, size_t) {});
      });
}

struct ProxyCase {
  const char* name;
  const char*
      proxyUrl;       // PW: the password as the URL writes it; SQUID, GARBAGE: the proxy's address
  const char* error;  // the line saying why, TARGET the server's host:port; nullptr: it opens
};

void PrintTo(const ProxyCase& proxyCase, std::ostream* out) { *out << proxyCase.name; }

class ProxyTest : public FaultTest, public ::testing::WithParamInterface<ProxyCase> {};

TEST_P(ProxyTest, LinkOpensThroughTheProxyOrSaysWhyNot) {
  const ProxyCase& proxyCase = GetParam();
  qavel::ServerOptions options;
  options.address = "::1";
  startServer(options);
  ASSERT_EQ(chmod(sandbox_->dir().c_str(), 0711), 0);  // for squid's user to pass
  Squid squid(sandbox_->path("squid"), server_->port());
  LoopbackListener garbage(answerGarbage);
  const std::string target = "[::1]:" + std::to_string(server_->port());
  const auto fill = [&](std::string text) {
    for (const auto& [mark, value] : {std::pair<std::string, std::string>{"PW", "s3cr%40t%3Ax"},
                                      {"SQUID", squid.address()},
                                      {"GARBAGE", "127.0.0.1:" + std::to_string(garbage.port())},
                                      {"TARGET", target}})
      if (const std::size_t at = text.find(mark); at != std::string::npos)
        text.replace(at, mark.size(), value);
    return text;
  };
  sandbox_->setKey("NIVO", "server_url", "wss://" + target);
  sandbox_->setKey("NIVO", "proxy_url", fill(proxyCase.proxyUrl));
  sandbox_->start();

  if (proxyCase.error == nullptr) {
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
    EXPECT_TRUE(logHas("#ERRORS#" + fill(proxyCase.error))) << sandbox_->log();
    EXPECT_FALSE(answers_.waitForRegister(std::chrono::seconds(0)));
  }
  for (const std::string& shown :
       {sandbox_->log(), sandbox_->readFile("status"), sandbox_->output() + sandbox_->errors()})
    EXPECT_EQ(shown.find("s3cr"), std::string::npos) << shown;
}

INSTANTIATE_TEST_SUITE_P(
    Proxies, ProxyTest,
    ::testing::Values(
        ProxyCase{"TunnelToIpv6Server", "http://bob:PW@SQUID", nullptr},
        ProxyCase{"ReplyNotHttp", "http://GARBAGE",
                  "NIVO link to wss://TARGET through http://GARBAGE not opened: the proxy answered "
                  "something that is not an HTTP reply: "}),
    [](const ::testing::TestParamInfo<ProxyCase>& info) { return info.param.name; });

}  // namespace
}  // namespace agentTest
