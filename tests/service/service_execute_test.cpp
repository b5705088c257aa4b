#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "src/service/service.h"
#include "tests/service/pluginRun.h"
#include "tools/harness/procScan.h"

// Sets the fields of a service that the agent itself never sets (no setter exists for them).
class ServiceTestPeer {
 public:
  static void setExecTime(service& s, std::int64_t seconds, std::int64_t microseconds) {
    s.execTimeSec_ = seconds;
    s.execTimeuSec_ = microseconds;
  }
};

namespace {

std::string plugin(const std::string& name) { return NIVO_TEST_PLUGIN_DIR "/" + name; }

long openDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// Of this process's address space, as /proc shows it.
long mappedKb() {
  std::ifstream status("/proc/self/status");
  for (std::string field; status >> field;)
    if (field == "VmSize:" && status >> field) return std::stol(field);
  return -1;
}

bool noChildLeft() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

}  // namespace

using ServiceExecute = PluginTest;

// Every way a run ends, each answered as if alone though all run at once, and nothing left behind:
// no descriptor, no child, nothing a plugin over its time limit started, and no stack mapped anew
// for each start. A limit of 60 seconds is one that a loaded machine cannot reach.
TEST_F(ServiceExecute, EveryEndingIsAnsweredAsAloneAndLeavesNothingBehind) {
  const std::string exit = plugin("plugin_exit.sh"), silent = plugin("plugin_silent.sh"),
                    bytes = plugin("plugin_bytes.sh"), killed = plugin("plugin_kill.sh"),
                    stopped = plugin("plugin_stop.sh"), absent = path("absent");
  const std::string nothing = "DAEMON: the plugin does not return anything on the stdout";
  const std::string notRun = "Error: orva can't execute ", by = "probe\npath:";
  const std::string notExecutable = "DAEMON: plugin is not executable ";
  const std::string timedOut = "UNKNOWN: plugin timed out after 1 seconds\n";
  const std::string cpuLimit = "UNKNOWN: plugin ended by its CPU time limit (cpu=1 seconds)\n";
  const std::string bySignal = "UNKNOWN: plugin ended by signal SIG";
  const std::string memoryLimit = " under its address-space limit (memory=64 MiB)\n";
  const std::string markers = path("started") + " " + path("never");
  const RunOutcome done = RunOutcome::Completed, over = RunOutcome::TimedOut,
                   limit = RunOutcome::LimitReached, failed = RunOutcome::Failed;
  const RuleLimits cpu{1, 0, nullptr}, memory{0, 64, nullptr};
  const auto kept = [](std::size_t bytes) { return RunLimits{0, bytes}; };
  std::string big;
  while (big.size() < 1000) big += "0123456789abcdef\n";
  big.resize(1000);
  // Pinned runs start from the open file, and no plugin inherits another descriptor of the agent's
  // (those have no close-on-exec flag), a binary not even the one it was started from.
  writeFile("data", "not a program\n");
  const auto opened = [](const std::string& file, int flags) {
    return std::make_shared<const UniqueFd>(::open(file.c_str(), O_RDONLY | flags));
  };
  const auto below = opened("/dev/null", 0), shell = opened("/bin/sh", O_CLOEXEC),
             interpreted = opened(exit, O_CLOEXEC), data = opened(path("data"), O_CLOEXEC),
             above = opened("/dev/null", 0);
  std::string fds = "-c 'for fd in";
  for (const auto& fd : {below, shell, above}) fds += " " + std::to_string(fd->get());
  fds += "; do test -e /proc/$$/fd/$fd && echo $fd open; done; echo checked'";
  const std::string loop = "while :; do :; done", signalled = script("signalled", "kill -$1 $$");
  // Past its time it gets SIGTERM and a grace second before SIGKILL, its output closed or not.
  const std::string graced = script("graced", "trap 'exec >&-; /bin/sleep 0.2; : >" +
                                                  path("graced.done") + "' TERM; sleep 30 & wait");
  const std::string allocating =
      script("allocating",
             "/usr/bin/python3 -c 'try:\n bytearray(512 << 20)\n print(\"allocated\")\n"
             "except MemoryError:\n print(\"refused\")'");
  const PluginRun runs[] = {
      {exit, "ok 0", 0, "ok\n"},
      {exit, "warn 5", 5, "warn\n"},
      {exit, "down 6", 3, "down\n"},
      {exit, "down 255", 3, "down\n"},
      {silent, "255", 3, "UNKNOWN: OrvaDaemon could not connect to host", nothing},
      {silent, "7", 3, "Error execute: Bad return code\n" + by + silent + " 7 ", nothing},
      {bytes, "\\047\\047", 3, "''", nothing},  // the raw output stays with the exception
      {bytes, "\\047\\047\\040", 0, "'' "},
      {bytes, "ab\\377cd", 0, "ab cd"},
      {bytes, "ab\\303", 0, "ab "},
      {bytes, "AB\\000CD\\n", 0, "AB"},
      {killed, "partial", 3, notRun + killed, notRun + by + killed + " partialpartial\n"},
      {stopped, "", 3, notRun + stopped, notRun + by + stopped + " "},
      {"/nonexistent", "", 2, notExecutable + "No such file or directory\n", "", failed},
      {plugin("plugin_big.sh"), "100000", 0, big + "\n[output truncated after 1000 bytes]\n", "",
       done, kept(1000)},
      {bytes, "ab\\303\\251cd", 0, "ab\n[output truncated after 3 bytes]\n", "", done, kept(3)},
      {bytes, "abc", 0, "abc", "", done, kept(3)},
      {bytes, "\\303\\251", 0, "[output truncated after 1 bytes]\n", "", done, kept(1)},
      {"/bin/sleep", "30", 3, timedOut, "", over, RunLimits{1}},
      {plugin("fault_background.sh"), markers, 3, timedOut, "", over, RunLimits{1}},
      {plugin("fault_close_stdout.sh"), markers, 3, timedOut, "", over, RunLimits{1}},
      {graced, "", 3, timedOut, "", over, RunLimits{1}},
      {exit, "quick 0", 0, "quick\n", "", done, RunLimits{60}},
      {"/bin/sh", "-c 'echo early; exec >&-; /bin/sleep 0.3; exit 2'", 2, "early\n", "", done,
       RunLimits{60}},
      {absent, fds, 0, "checked\n", "", done, {}, {}, shell},
      {"/bin/sh", fds, 0, "checked\n"},
      {absent, "pinned 1", 1, "pinned\n", "", done, {}, {}, interpreted},
      {absent, "", 2, notExecutable + "Permission denied\n", "", failed, {}, {}, data},
      // A rule's limit ends the plugin, answered 3 with the limit named and no exception (it is
      // never retried); an end that the limits do not explain is answered as it always was.
      {script("busy", loop), "", 3, cpuLimit, "", limit, {}, cpu},
      {script("stubborn", "trap '' XCPU; " + loop), "", 3, cpuLimit, "", limit, {}, cpu},
      {allocating, "", 0, "refused\n", "", done, {}, memory},
      {allocating, "", 0, "allocated\n"},
      {signalled, "SEGV", 3, bySignal + "SEGV" + memoryLimit, "", limit, {}, memory},
      {signalled, "ABRT", 3, bySignal + "ABRT" + memoryLimit, "", limit, {}, memory},
      {signalled, "SEGV", 3, notRun + signalled, notRun + by + signalled + " SEGV", done, {}, cpu},
      {killed, "x", 3, notRun + killed, notRun + by + killed + " xx\n", done, {}, cpu},
      {signalled, "XCPU", 3, notRun + signalled, notRun + by + signalled + " XCPU"},
  };
  const long descriptors = openDescriptors();
  std::vector<std::thread> threads;
  for (const PluginRun& run : runs) threads.emplace_back([&run] { expectRun(run); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(openDescriptors(), descriptors);
  EXPECT_TRUE(noChildLeft());
  EXPECT_TRUE(processesWhose("cmdline", path("never")).empty());
  EXPECT_TRUE(std::filesystem::exists(path("graced.done")));
  const long mapped = mappedKb();
  for (int i = 0; i < 300; ++i) expectRun(runs[0]);
  EXPECT_LT(mappedKb() - mapped, 4096);
}

// A copy carries every field that can be set; the cost is 300000 / interval, 0 for an interval of
// 0.
TEST(ServiceRecord, CopyCarriesEveryFieldAndTheCostFollowsTheInterval) {
  service s;
  EXPECT_EQ(s.GetCost(), 1.0f);
  s.Setinterval_exec_time(0);
  EXPECT_EQ(s.GetCost(), 0.0f);
  s.SetService_id(42);
  s.Setparameter("-w '80 %'");
  s.SetAlertingParameter("a");
  s.Setinterval_exec_time(13);
  ServiceTestPeer::setExecTime(s, 5, 6);
  const service copy(s);
  EXPECT_EQ(copy.GetCost(), 23076.0f);
  EXPECT_EQ(copy.Getinterval_exec_time(), 13);
  EXPECT_EQ(copy.GetService_idStr(), "42");
  EXPECT_EQ(copy.getVectorParam(), (std::vector<std::string>{"-w", "80 %"}));
  EXPECT_EQ(copy.getVectorAlertingParam(), std::vector<std::string>{"a"});
  EXPECT_EQ(copy.GetExecTimeSec() + copy.GetExecTimeuSec(), 11);
  EXPECT_EQ(copy.GetMaintenanceMode() + copy.getLastValidateReturnCode(), 0);
}

// Each side is read as stored, the other one through its int getter.
TEST(ServiceOrder, BySecondsThenMicroseconds) {
  service a, b;
  ServiceTestPeer::setExecTime(a, 10, 900);
  const std::vector<std::pair<std::int64_t, std::int64_t>> later = {{11, 0}, {10, 901}};
  for (const auto& [seconds, microseconds] : later) {
    ServiceTestPeer::setExecTime(b, seconds, microseconds);
    EXPECT_TRUE(a < b && b > a && !(b < a) && !(a > b)) << seconds << "." << microseconds;
  }
  ServiceTestPeer::setExecTime(b, 10, 900);
  EXPECT_FALSE(a < b || a > b);

  ServiceTestPeer::setExecTime(b, std::int64_t{1} << 32, 0);  // reads as 0 through the getter
  ServiceTestPeer::setExecTime(a, 1, 0);
  EXPECT_TRUE(a > b && b > a);
}
