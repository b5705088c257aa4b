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

// Memcheck runs the agent some twenty times slower.
constexpr std::chrono::seconds kValgrindWait{120};
// The agent sends "REGISTER" 0.6 s after it has started to connect, open link or not. Under
// memcheck the TLS handshake alone takes about that long (every code path is translated on its
// first run), so a run may end at that send with "invalid state". Such a run is a session of its
// own (start-up and the link-failure path) and is checked like the others; the agent is then
// started again, for as long as this allows. The agent also runs at a high priority, so that a
// busy machine (a burst test beside it) does not starve its handshake.
constexpr std::chrono::minutes kRegisterWait{3};

class ValgrindTest : public FaultTest {
 protected:
  void SetUp() override {
    if (kSanitized) GTEST_SKIP() << "valgrind cannot run a sanitized agent";
    FaultTest::SetUp();
  }
  // The sandbox starts nice, which starts valgrind, which runs the agent; the plugins it forks run
  // natively.
  std::string program() const override { return "/usr/bin/nice"; }

  bool registered() { return answers_.waitForRegister(std::chrono::seconds(0)); }

  // Starts the agent under memcheck until one run registers; false when none did.
  bool startRegisteredAgent() {
    const auto deadline = Clock::now() + kRegisterWait;
    while (Clock::now() < deadline) {
      sandbox_->start({"-n", "-15", "/usr/bin/valgrind", "--leak-check=full",
                       "--errors-for-leak-kinds=definite", "--error-exitcode=99",
                       "--child-silent-after-fork=yes", "--vex-guest-chase=no",
                       "--log-file=" + sandbox_->path("memcheck.%p"), NIVO_AGENT_PATH, "-D", "-f",
                       "/etc/nivo/qavel.conf"});
      runs_.push_back(sandbox_->pid());
      if (!eventually([&] { return registered() || !sandbox_->running(); }, kValgrindWait))
        return false;
      if (registered()) return true;
      EXPECT_EQ(ending(std::chrono::seconds(0)), kExitedNormally);
      EXPECT_TRUE(logHas(kLinkFailure + "Error sending message: invalid state\n"));
    }
    return false;
  }

  std::vector<pid_t> runs_;
};

TEST_F(ValgrindTest, ShortSessionHasNoMemoryErrorAndNoDefiniteLeak) {
  addPlugin("plugin_silent", "plugin_silent.sh");
  ASSERT_TRUE(makeCertificate(sandbox_->dir()));
  qavel::ServerOptions options;
  options.certFile = sandbox_->path("cert.pem");
  options.keyFile = sandbox_->path("key.pem");
  startServer(options);
  sandbox_->setKey("NIVO", "server_url", "wss://" + serverAddress());
  ASSERT_TRUE(startRegisteredAgent()) << "no run registered in " << runs_.size() << " attempts";

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
  for (const pid_t run : runs_) {
    const std::string memcheck = sandbox_->readFile("memcheck." + std::to_string(run));
    SCOPED_TRACE("memcheck of agent " + std::to_string(run));
    EXPECT_TRUE(std::regex_search(memcheck, std::regex("ERROR SUMMARY: 0 errors"))) << memcheck;
    EXPECT_FALSE(std::regex_search(memcheck, std::regex("definitely lost: [1-9]"))) << memcheck;
    const std::size_t summary = memcheck.find("LEAK SUMMARY:");
    if (summary != std::string::npos) std::cout << memcheck.substr(summary) << std::flush;
  }
  std::cout << runs_.size() << " run(s) under memcheck" << std::endl;
}

}  // namespace
}  // namespace agentTest
