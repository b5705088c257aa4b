// A short session of the agent under valgrind's memcheck: registration, a few orders of every kind,
// then SIGTERM. No memory error and no definite leak. The agent ends through _exit on purpose (a
// web worker may still be running a plugin), so what its globals still reach is not a leak.
#include <regex>

#include "tests/faults/faultTest.h"

namespace agentTest {
namespace {

// A self-signed RSA certificate for CN=localhost: <dir>/cert.pem and <dir>/key.pem. RSA, because a
// client checks an RSA signature with far less work than an ECDSA one, which counts for an agent
// run under valgrind.
bool makeCertificate(const std::string& dir) {
  const std::string command =
      "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost -keyout " + dir +
      "/key.pem -out " + dir + "/cert.pem >/dev/null 2>&1";
  return std::system(command.c_str()) == 0;
}

// Memcheck runs the agent some twenty times slower: its TLS handshake alone takes seconds, so
// REGISTER waits for the link to open (open_timeout), and the agent runs at a high priority, so
// that a busy machine does not starve it.
constexpr std::chrono::seconds kValgrindWait{120};

class ValgrindTest : public FaultTest {
 protected:
  void SetUp() override {
    if (kSanitized) GTEST_SKIP() << "valgrind cannot run a sanitized agent";
    FaultTest::SetUp();
  }
  // The sandbox starts nice, which starts valgrind, which runs the agent; the plugins it forks run
  // natively.
  std::string program() const override { return "/usr/bin/nice"; }
};

TEST_F(ValgrindTest, ShortSessionHasNoMemoryErrorAndNoDefiniteLeak) {
  addPlugin("plugin_silent", "plugin_silent.sh");
  ASSERT_TRUE(makeCertificate(sandbox_->dir()));
  qavel::ServerOptions options;
  options.certFile = sandbox_->path("cert.pem");
  options.keyFile = sandbox_->path("key.pem");
  startServer(options);
  sandbox_->setKey("NIVO", "server_url", "wss://" + serverAddress());
  sandbox_->setKey("NIVO", "open_timeout", "120");
  sandbox_->start({"-n", "-15", "/usr/bin/valgrind", "--leak-check=full",
                   "--errors-for-leak-kinds=definite", "--error-exitcode=99",
                   "--child-silent-after-fork=yes", "--vex-guest-chase=no",
                   "--log-file=" + sandbox_->path("memcheck"), NIVO_AGENT_PATH, "-D", "-f",
                   "/etc/nivo/qavel.conf"});
  ASSERT_TRUE(answers_.waitForRegister(kValgrindWait));

  server_->sendExec(1, "plugin_exit", "first", 5);
  server_->sendExec(2, "plugin_exit", "'from the web pool' 1", 1);
  server_->sendExec(3, "check_absent", "", 5);
  server_->sendRaw("not json");
  server_->sendRaw(R"({"COMMAND":"EXEC","TASK":{"TASKID":"4","NAME":"plugin_exit"}})");
  server_->sendExec(5, "plugin_silent", "", 5);  // three failed attempts, then the answer
  EXPECT_EQ(answers_.wait(5, kValgrindWait).size(), 5u);
  EXPECT_EQ(answers_.to(1), once(qavel::execResponse(0, 1, "first\n", 0)));
  EXPECT_EQ(answers_.to(2), once(qavel::execResponse(0, 2, "from the web pool\n", 1)));

  sandbox_->signal(SIGTERM);
  EXPECT_EQ(ending(kValgrindWait), kExitedNormally);
  const std::string memcheck = sandbox_->readFile("memcheck");
  EXPECT_TRUE(std::regex_search(memcheck, std::regex("ERROR SUMMARY: 0 errors"))) << memcheck;
  EXPECT_FALSE(std::regex_search(memcheck, std::regex("definitely lost: [1-9]"))) << memcheck;
  const std::size_t summary = memcheck.find("LEAK SUMMARY:");
  if (summary != std::string::npos) std::cout << memcheck.substr(summary) << std::flush;
}

}  // namespace
}  // namespace agentTest
