#include "src/service/pluginConfinement.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/ip/tcp.hpp>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "src/service/childProcess.h"
#include "src/service/service.h"
#include "tests/common/tempDirTest.h"

namespace {

// What one run of a plugin under `limits` left behind.
struct Outcome {
  int code = -1;
  std::string out;
  RunOutcome how = RunOutcome::NotRun;
  bool threw = false;
};

Outcome run(const std::string& path, const std::string& parameter, const RuleLimits& limits) {
  service s;
  s.Setname("probe");
  s.Setpath(path);
  s.Setparameter(parameter);
  s.SetRuleLimits(limits);
  Outcome r;
  try {
    s.execute();
  } catch (const serviceException&) {
    r.threw = true;
  }
  r.code = s.GetReturnCode();
  r.out = s.GetStdout();
  r.how = s.GetRunOutcome();
  return r;
}

// A TCP port of 127.0.0.1 that accepts connections (into its backlog) while the object lives.
class Listener {
 public:
  Listener() : acceptor_(io_, {boost::asio::ip::address_v4::loopback(), 0}) {}
  std::string port() const { return std::to_string(acceptor_.local_endpoint().port()); }

 private:
  boost::asio::io_context io_;
  boost::asio::ip::tcp::acceptor acceptor_;
};

// An abstract UNIX socket listening while the object lives.
class AbstractListener {
 public:
  explicit AbstractListener(const std::string& name) : socket_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    const socklen_t length = static_cast<socklen_t>(sizeof(sa_family_t) + 1 + name.size());
    if (::bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(socket_.get(), 64) != 0)
      ADD_FAILURE() << "abstract socket " << name << ": " << std::strerror(errno);
  }

 private:
  UniqueFd socket_;
};

class Confinement : public TempDirTest {
 protected:
  // A bash plugin that runs `command` and says "allowed", or "denied: " and what it printed.
  std::string probe(const std::string& command) {
    writeFile("probe", "#!/bin/bash\nif out=$( { " + command +
                           " ; } 2>&1 ); then echo allowed; else echo \"denied: $out\"; fi\n");
    ::chmod(path("probe").c_str(), 0755);
    return path("probe");
  }

  // ABIs from none to the kernel's, those that bring something.
  static std::vector<int> abis() {
    std::vector<int> offered;
    for (const int abi : {0, 2, 3, 4, 6, 7})
      if (abi <= LandlockSupport::get().abi()) offered.push_back(abi);
    return offered;
  }

  static RuleLimits confined(int abi, const std::vector<std::string>& writePaths = {},
                             const std::vector<std::uint16_t>& ports = {}) {
    RuleLimits limits;
    if (abi > 0) limits.confinement = PluginConfinement::make(abi, writePaths, ports);
    return limits;
  }
};

// Each thing a confined plugin may not do, denied from the ABI that brings it on, and what stays
// allowed allowed at every ABI; without confinement (ABI 0) everything goes through.
TEST_F(Confinement, PluginIsHeldToItsRuleAsFarAsTheAbiReaches) {
  ASSERT_GE(LandlockSupport::get().abi(), 6) << "this test wants a kernel with Landlock ABI 6";
  std::filesystem::create_directories(path("allowed"));
  std::filesystem::create_directories(path("outside"));
  const Listener allowedPort;
  const Listener otherPort;
  const std::string socketName = "nivo-confinement-" + std::to_string(::getpid());
  const AbstractListener abstractSocket(socketName);
  const std::string python = "/usr/bin/python3 -c ";
  const int never = 99;
  const struct {
    const char* what;
    std::string command;
    int deniedFrom;  // the first ABI that denies it
  } cases[] = {
      {"write outside", "echo x > " + path("outside/file"), 1},
      {"truncate(2) outside",
       "/usr/bin/perl -e 'truncate($ARGV[0], 0) or die \"$!\\n\"' " + path("outside/log"), 3},
      {"signal the agent", "kill -0 " + std::to_string(::getpid()), 6},
      {"signal another process", "kill -0 " + std::to_string(::getppid()), 6},
      {"abstract UNIX socket outside",
       python + "'import socket; socket.socket(socket.AF_UNIX).connect(\"\\0" + socketName + "\")'",
       6},
      {"connect to another port", "exec 3<>/dev/tcp/127.0.0.1/" + otherPort.port(), 4},
      {"bind", python + "'import socket; socket.socket().bind((\"127.0.0.1\", 0))'", 4},
      {"write beneath write=",
       "/bin/mkdir " + path("allowed/d") + " && echo x > " + path("allowed/d/f") + " && : > " +
           path("allowed/d/f") + " && /bin/rm -r " + path("allowed/d"),
       never},
      {"write and truncate /dev/null", ": > /dev/null && echo x > /dev/null", never},
      {"connect to the connect= port", "exec 3<>/dev/tcp/127.0.0.1/" + allowedPort.port(), never},
      {"signal its own child", "/bin/sleep 5 & kill $!", never},
  };
  for (const int abi : abis()) {
    const RuleLimits limits = confined(abi, {path("allowed")},
                                       {static_cast<std::uint16_t>(std::stoi(allowedPort.port()))});
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(c.what) + " at ABI " + std::to_string(abi));
      writeFile("outside/log", "the agent's log\n");
      const Outcome r = run(probe(c.command), "", limits);
      EXPECT_EQ(r.code, 0) << r.out;
      const bool denied = abi >= c.deniedFrom;
      EXPECT_EQ(r.out.rfind(denied ? "denied: " : "allowed", 0), 0u) << r.out;
      EXPECT_EQ(readFile("outside/log").empty(), !denied && c.deniedFrom == 3);
    }
  }
  EXPECT_EQ(unenforcedRestrictions(2),
            (std::vector<std::string>{"truncating files (ABI 3)", "TCP bind and connect (ABI 4)",
                                      "ioctl on devices (ABI 5)",
                                      "signals and abstract UNIX sockets (ABI 6)"}));
  EXPECT_EQ(unenforcedRestrictions(4),
            (std::vector<std::string>{"ioctl on devices (ABI 5)",
                                      "signals and abstract UNIX sockets (ABI 6)"}));
  EXPECT_EQ(unenforcedRestrictions(6), std::vector<std::string>{});
}

// A limit ends the plugin, answered 3 with the limit named and never retried (no exception);
// without limits an end by the same signal is answered as it always was.
TEST_F(Confinement, CpuAndMemoryLimitsEndOrStarveThePlugin) {
  const std::string cpuLimit = "UNKNOWN: plugin ended by its CPU time limit (cpu=1 seconds)\n";
  const std::string allocate =
      "/usr/bin/python3 -c 'try:\n bytearray(512 << 20)\n print(\"allocated\")\n"
      "except MemoryError:\n print(\"refused\")'";
  const struct {
    const char* what;
    std::string command;
    int cpu;
    int memory;
    std::string out;
    RunOutcome how;
  } cases[] = {
      {"CPU-bound", "while :; do :; done", 1, 0, cpuLimit, RunOutcome::LimitReached},
      {"CPU-bound, SIGXCPU ignored", "trap '' XCPU; while :; do :; done", 1, 0, cpuLimit,
       RunOutcome::LimitReached},
      {"big allocation", allocate, 0, 64, "refused\n", RunOutcome::Completed},
      {"big allocation without memory=", allocate, 0, 0, "allocated\n", RunOutcome::Completed},
      {"crash under memory=", "kill -SEGV $$", 0, 64,
       "UNKNOWN: plugin ended by signal SIGSEGV under its address-space limit (memory=64 MiB)\n",
       RunOutcome::LimitReached},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    writeFile("plugin", "#!/bin/bash\n" + c.command + "\n");
    ::chmod(path("plugin").c_str(), 0755);
    RuleLimits limits;
    limits.cpuSeconds = c.cpu;
    limits.memoryMib = c.memory;
    const Outcome r = run(path("plugin"), "", limits);
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.code, c.how == RunOutcome::LimitReached ? 3 : 0);
    EXPECT_EQ(r.how, c.how);
    EXPECT_FALSE(r.threw);
  }
  writeFile("plugin", "#!/bin/bash\nkill -XCPU $$\n");
  const Outcome unlimited = run(path("plugin"), "", RuleLimits{});
  EXPECT_TRUE(unlimited.threw);
  EXPECT_EQ(unlimited.out, "Error: orva can't execute " + path("plugin"));
}

// A confinement that cannot be put in place fails the start as a failed execve does: the program
// never runs, unconfined or otherwise.
TEST_F(Confinement, FailedStepNeverRunsTheProgram) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  UniqueFd readEnd(ends[0]);
  UniqueFd writeEnd(ends[1]);
  const UniqueFd notARuleset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  const ArgumentVector argv("/bin/echo", {"ran"});
  ChildSetup setup;
  setup.path = "/bin/echo";
  setup.argv = argv.get();
  setup.outputFd = writeEnd.get();
  setup.unusedFd = readEnd.get();
  setup.landlockRuleset = notARuleset.get();
  int startError = 0;
  setup.startError = &startError;
  const pid_t pid = spawnChild(setup);
  ASSERT_GT(pid, 0);
  writeEnd.reset();
  std::string out;
  char buffer[256];
  for (ssize_t got; (got = ::read(readEnd.get(), buffer, sizeof buffer)) > 0;)
    out.append(buffer, static_cast<std::size_t>(got));
  int status = 0;
  ASSERT_EQ(waitRetry(pid, &status, 0), pid);
  EXPECT_EQ(out, "DAEMON: plugin not run: landlock_restrict_self failed: " +
                     std::string(std::strerror(EBADFD)) + "\n");
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2);
  EXPECT_EQ(startError, EBADFD);
}

// The ABI in use: the kernel's, never above the newest the agent knows nor the test seam's cap; and
// why there is none, as an order refused for it says.
TEST(LandlockSupport, AbiInUseAndWhyThereIsNone) {
  const struct {
    int kernelAbi;
    int kernelError;
    const char* cap;
    int abi;
    std::string absence;
  } cases[] = {
      {9, 0, nullptr, 7, ""},
      {7, 0, "3", 3, ""},
      {3, 0, "6", 3, ""},
      {7, 0, "three", 7, ""},
      {7, 0, "0", 0, "NIVO_LANDLOCK_ABI_MAX=0 leaves no Landlock ABI (a test setting)"},
      {-1, ENOSYS, "3", 0,
       "this kernel has no Landlock (Linux 5.13 or later built with it is needed)"},
      {-1, EOPNOTSUPP, nullptr, 0,
       "Landlock is disabled in this kernel (it is not in the boot parameter lsm=)"},
  };
  for (const auto& c : cases) {
    const LandlockSupport support(c.kernelAbi, c.kernelError, c.cap);
    EXPECT_EQ(support.abi(), c.abi) << c.kernelAbi << " " << (c.cap ? c.cap : "");
    EXPECT_EQ(support.absence(), c.absence);
  }
  const LandlockSupport none(-1, ENOSYS, nullptr);
  EXPECT_EQ(none.notRunText("check_load"),
            "EXEC plugin: check_load not run: it cannot be confined: " + none.absence());
  EXPECT_EQ(none.warnings(), std::vector<std::string>{"NIVO/confine_plugins: " + none.absence() +
                                                      "; every order is refused"});
  EXPECT_EQ(LandlockSupport(7, 0, nullptr).warnings(), std::vector<std::string>{});
}

// A monitoring plugin confined with a connect= port (the shipped rules' plugins are run confined in
// the rules' tests).
TEST_F(Confinement, MonitoringPluginsAnswerConfined) {
  const int abi = LandlockSupport::get().abi();
  ASSERT_GE(abi, 4) << "this test wants a kernel with Landlock ABI 4";
  const Listener allowed;
  const Listener forbidden;
  const std::string plugins = NIVO_MONITORING_PLUGIN_DIR "/";
  const struct {
    std::string plugin;
    std::string parameter;
    int code;
    std::string outStart;
  } cases[] = {
      {"check_tcp", "-H 127.0.0.1 -p " + allowed.port(), 0, "TCP OK"},
      {"check_tcp", "-H 127.0.0.1 -p " + forbidden.port(), 2,
       "connect to address 127.0.0.1 and port " + forbidden.port() + ": Permission denied"},
  };
  const RuleLimits limits =
      confined(abi, {}, {static_cast<std::uint16_t>(std::stoi(allowed.port()))});
  for (const auto& c : cases) {
    SCOPED_TRACE(c.plugin + " " + c.parameter);
    const Outcome r = run(plugins + c.plugin, c.parameter, limits);
    EXPECT_EQ(r.code, c.code) << r.out;
    EXPECT_EQ(r.out.rfind(c.outStart, 0), 0u) << r.out;
  }
}

}  // namespace
