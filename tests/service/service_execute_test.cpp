#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "src/service/service.h"
#include "tests/common/capturedOutput.h"
#include "tests/common/leftovers.h"
#include "tests/common/tempDirTest.h"
#include "tests/service/serviceTestPeer.h"

namespace {

std::string plugin(const std::string& name) { return NIVO_TEST_PLUGIN_DIR "/" + name; }

// What one execute() left behind.
struct Outcome {
  int returned = -1;  // -1 when it threw
  int code = -1;
  std::string out;
  std::string error;  // what() of the serviceException, if any
};

Outcome run(const std::string& path, const std::string& parameter, const RunLimits& limits = {}) {
  service s;
  s.Setname("probe");
  s.Setpath(path);
  s.Setparameter(parameter);
  s.SetRunLimits(limits);
  Outcome r;
  try {
    r.returned = s.execute();
  } catch (const serviceException& e) {
    r.error = e.what();
  }
  r.code = s.GetReturnCode();
  r.out = s.GetStdout();
  return r;
}

std::string description(const std::string& path, const std::string& parameter) {
  return "probe\npath:" + path + " " + parameter;
}

long openDescriptorCount() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

bool noChildLeft() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

// Runs `s` with every descriptor taken; the text of what it threw.
std::string failToOpenPipe(service& s) {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return "getrlimit failed";
  const int lowestFree = open("/dev/null", O_RDONLY);
  close(lowestFree);
  rlimit none = limit;
  none.rlim_cur = lowestFree;  // every descriptor is taken
  if (setrlimit(RLIMIT_NOFILE, &none) != 0) return "setrlimit failed";
  std::string error = "nothing thrown";
  try {
    s.execute();
  } catch (const serviceException& e) {
    // Read with descriptors free: UBSan checks a polymorphic object through a pipe of its own.
    setrlimit(RLIMIT_NOFILE, &limit);
    error = e.what();
  }
  setrlimit(RLIMIT_NOFILE, &limit);
  return error;
}

const char kNothing[] = "DAEMON: the plugin does not return anything on the stdout";

}  // namespace

TEST(ServiceExecute, KeepsOutputAndCodesZeroToFive) {
  for (int code = 0; code <= 5; ++code) {
    const Outcome r = run(plugin("plugin_exit.sh"), "'OK - load 0.1' " + std::to_string(code));
    EXPECT_EQ(r.returned, code);
    EXPECT_EQ(r.out, "OK - load 0.1\n");
  }
}

TEST(ServiceExecute, ExitCodeOutsideZeroToFiveOrNoOutputBecomesUnknown) {
  for (const char* code : {"255", "7"}) {
    const Outcome r = run(plugin("plugin_exit.sh"), std::string("down ") + code);
    EXPECT_EQ(r.returned, 3) << code;
    EXPECT_EQ(r.out, "down\n");
  }
  const Outcome unreachable = run(plugin("plugin_silent.sh"), "255");
  EXPECT_EQ(unreachable.code, 3);
  EXPECT_EQ(unreachable.out, "UNKNOWN: OrvaDaemon could not connect to host");
  EXPECT_EQ(unreachable.error, kNothing);

  const Outcome bad = run(plugin("plugin_silent.sh"), "7");
  EXPECT_EQ(bad.code, 3);
  EXPECT_EQ(bad.out, "Error execute: Bad return code\n" +
                         description(plugin("plugin_silent.sh"), "7") + " ");
  EXPECT_EQ(bad.error, kNothing);

  const Outcome quotes = run(plugin("plugin_bytes.sh"), "\\047\\047");
  EXPECT_EQ(quotes.code, 3);
  EXPECT_EQ(quotes.error, kNothing);
  EXPECT_EQ(quotes.out, "''");  // the raw output stays with the exception
  EXPECT_EQ(run(plugin("plugin_bytes.sh"), "\\047\\047\\040").out, "'' ");
}

TEST(ServiceExecute, UnrunnablePathReportsCriticalWithTheSystemText) {
  const Outcome missing = run("/nonexistent/plugin", "-w 1");
  EXPECT_EQ(missing.returned, 2);
  EXPECT_EQ(missing.out, "DAEMON: plugin is not executable No such file or directory\n");
  EXPECT_EQ(run("/etc/passwd", "").out, "DAEMON: plugin is not executable Permission denied\n");
}

TEST(ServiceExecute, FailedPipeNamesTheServiceAndLeavesTheRecordUnlessFailuresAreUnknown) {
  for (const bool unknownOnFailure : {false, true}) {
    service s;
    s.Setname("probe");
    s.Setpath("/opt/load");
    s.Setparameter("-w 5");
    s.SetReturnCode(7);
    RunLimits limits;
    limits.unknownOnFailure = unknownOnFailure;
    s.SetRunLimits(limits);
    const std::string error = failToOpenPipe(s);
    EXPECT_EQ(error, "Error open pipe probe\npath:/opt/load -w 5Too many open files");
    EXPECT_EQ(s.GetReturnCode(), unknownOnFailure ? 3 : 7);
    EXPECT_EQ(s.GetStdout(), unknownOnFailure ? error : "");
  }
}

TEST(ServiceExecute, PluginEndedBySignalIsNotExecutable) {
  const std::string path = plugin("plugin_kill.sh");
  const Outcome r = run(path, "partial");
  EXPECT_EQ(r.code, 3);
  EXPECT_EQ(r.out, "Error: orva can't execute " + path);
  EXPECT_EQ(r.error, "Error: orva can't execute " + description(path, "partial") + "partial\n");
}

TEST(ServiceExecute, OutputBytesAreRepairedAndCutAtNul) {
  EXPECT_EQ(run(plugin("plugin_bytes.sh"), "ab\\377cd").out, "ab cd");
  EXPECT_EQ(run(plugin("plugin_bytes.sh"), "ab\\303").out, "ab ");
  EXPECT_EQ(run(plugin("plugin_bytes.sh"), "AB\\000CD\\n").out, "AB");
}

TEST(ServiceExecute, LargeOutputArrivesWhole) {
  const int size = 1536 * 1024;
  std::string expected;
  while (expected.size() < size) expected += "0123456789abcdef\n";
  expected.resize(size);
  const Outcome r = run(plugin("plugin_big.sh"), std::to_string(size));
  EXPECT_EQ(r.returned, 0);
  EXPECT_TRUE(r.out == expected) << r.out.size() << " bytes";
}

TEST(ServiceExecute, PluginGetsArgumentsAsSplitAndAnEmptyEnvironment) {
  setenv("NIVO_TEST_MARK", "leaked", 1);
  EXPECT_EQ(run(plugin("plugin_env.sh"), "").out, "environment:\n");
  EXPECT_EQ(run(plugin("plugin_args.sh"), "-c \"a b\"  -d 'c d' a\\b").out,
            "[-c]\n[a b]\n[-d]\n[c d]\n[a\\b]\n");
}

TEST(ServiceExecute, MonitoringPluginAnswersAsRunByHand) {
  const std::string path = NIVO_MONITORING_PLUGIN_DIR "/check_dummy";
  if (access(path.c_str(), X_OK) != 0)
    GTEST_SKIP() << path << " missing (monitoring-plugins-basic)";
  const char* const states[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
  for (int code = 0; code <= 3; ++code) {
    const Outcome r = run(path, std::to_string(code) + " 'disk fine'");
    EXPECT_EQ(r.returned, code);
    EXPECT_EQ(r.out, std::string(states[code]) + ": disk fine\n");
  }
}

TEST(ServiceExecute, PluginSeesOnlyStandardDescriptors) {
  for (int fd = 0; fd <= 2; ++fd) {  // a runner may start us without some of them
    if (fcntl(fd, F_GETFD) == -1) {
      ASSERT_EQ(open("/dev/null", O_RDWR), fd);
    }
  }
  const int socketFd = socket(AF_INET, SOCK_STREAM, 0);  // like the link's: no close-on-exec
  const int logFd = open("/dev/null", O_WRONLY);
  ASSERT_GE(socketFd, 0);
  ASSERT_GE(logFd, 0);
  EXPECT_EQ(run(NIVO_PLUGIN_LISTFDS, "").out, "0 1 2\n");
  close(socketFd);
  close(logFd);
}

TEST(ServiceExecute, PluginStartsWithDefaultSignalsAndTheWorkersMask) {
  struct sigaction ignore {
  }, previous{};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGUSR1, &ignore, &previous);
  sigset_t usr2, oldMask;
  sigemptyset(&usr2);
  sigaddset(&usr2, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &usr2, &oldMask);
  // /proc shows each set as a hex mask, bit n-1 for signal n. Only the two signals set up here
  // are looked at: the test process may inherit other dispositions from whoever started it.
  const std::string masks = run("/bin/grep", "-E ^Sig(Blk|Ign) /proc/self/status").out;
  const auto bit = [&masks](const std::string& field, int signal) {
    const std::size_t at = masks.find(field + ":\t");
    EXPECT_NE(at, std::string::npos) << masks;
    const unsigned long long set =
        std::stoull(masks.substr(at + field.size() + 2, 16), nullptr, 16);
    return (set >> (signal - 1)) & 1U;
  };
  EXPECT_EQ(bit("SigBlk", SIGUSR2), 1U) << masks;
  EXPECT_EQ(bit("SigIgn", SIGUSR1), 0U) << masks;
  pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
  sigaction(SIGUSR1, &previous, nullptr);
}

volatile sig_atomic_t termsReceived = 0;

TEST(ServiceExecute, PluginLeadsItsOwnGroupSoSignallingItSparesTheAgent) {
  struct sigaction count {
  }, previous{};
  count.sa_handler = [](int) { termsReceived = termsReceived + 1; };
  sigaction(SIGTERM, &count, &previous);
  EXPECT_EQ(run(plugin("fault_kill_group.sh"), "").out, "group leader\n");
  EXPECT_EQ(termsReceived, 0);
  sigaction(SIGTERM, &previous, nullptr);
}

TEST(ServiceExecute, ManyRunsFromThreadsLeaveNoDescriptorAndNoChild) {
  const std::vector<std::tuple<std::string, std::string, int>> cases = {
      {plugin("plugin_exit.sh"), "ok 0", 0}, {plugin("plugin_silent.sh"), "255", 3},
      {"/nonexistent/plugin", "", 2},        {plugin("plugin_kill.sh"), "x", 3},
      {plugin("plugin_stop.sh"), "", 3},
  };
  const long before = openDescriptorCount();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&cases, t] {
      for (int i = 0; i < 250; ++i) {
        const auto& [path, parameter, code] = cases[(i + t) % cases.size()];
        EXPECT_EQ(run(path, parameter).code, code) << path;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(openDescriptorCount(), before);
  EXPECT_TRUE(noChildLeft());
}

using ServiceLimits = TempDirTest;

TEST_F(ServiceLimits, PluginOverItsTimeLimitIsEndedWithWhatItStartedAndReportedUnknown) {
  RunLimits limits;
  limits.timeoutSeconds = 1;
  const std::string timedOut = "UNKNOWN: plugin timed out after 1 seconds\n";
  const std::string never = path("never");
  const std::vector<std::tuple<std::string, std::string, int, std::string>> cases = {
      {"/bin/sleep", "30", 3, timedOut},
      {plugin("fault_background.sh"), path("started") + " " + never, 3, timedOut},
      {plugin("fault_close_stdout.sh"), path("started") + " " + never, 3, timedOut},
      {plugin("plugin_exit.sh"), "quick 0", 0, "quick\n"},
  };
  for (const auto& [program, parameter, code, out] : cases) {
    const Outcome r = run(program, parameter, limits);
    EXPECT_EQ(r.returned, code) << program;
    EXPECT_EQ(r.out, out) << program;
    EXPECT_EQ(r.error, "") << program;
    EXPECT_TRUE(noChildLeft()) << program;
    EXPECT_EQ(processesMentioning(never), 0) << program;
  }
}

TEST(ServiceExecute, OutputOverItsLimitIsCutAtACharacterAndSaysSo) {
  const auto limited = [](std::size_t bytes) {
    RunLimits limits;
    limits.maxOutput = bytes;
    return limits;
  };
  std::string kept;
  while (kept.size() < 1000) kept += "0123456789abcdef\n";
  kept.resize(1000);
  EXPECT_EQ(run(plugin("plugin_big.sh"), "100000", limited(1000)).out,
            kept + "\n[output truncated after 1000 bytes]\n");
  EXPECT_EQ(run(plugin("plugin_bytes.sh"), "ab\\303\\251cd", limited(3)).out,
            "ab\n[output truncated after 3 bytes]\n");
  EXPECT_EQ(run(plugin("plugin_bytes.sh"), "abc", limited(3)).out, "abc");
}

using ServiceAlerting = TempDirTest;

TEST_F(ServiceAlerting, ErrorItemsAreReplacedWhole) {
  setenv("NIVO_TEST_MARK", "inherited", 1);
  service s;
  ServiceTestPeer::setAlertingSoftware(s, plugin("alert_record.sh"));
  s.SetAlertingParameter(path("argv") + " -s $ERROR");
  s.SetAlertingParameter("x$ERRORy plain");
  EXPECT_EQ(s.executeAlertingSoftware("CRITICAL - disk full"), 0);
  EXPECT_EQ(readFile("argv"), plugin("alert_record.sh") + "\n" + path("argv") +
                                  "\n-s\nCRITICAL - disk full\nCRITICAL - disk full\nplain\n"
                                  "NIVO_TEST_MARK=inherited\n");
}

TEST_F(ServiceAlerting, MissingProgramStillReturnsZero) {
  service s;
  ServiceTestPeer::setAlertingSoftware(s, "/nonexistent/alert");
  CapturedOutput printed(STDOUT_FILENO);
  const int returned = s.executeAlertingSoftware("down");
  EXPECT_EQ(printed.text(), "No such file or directory\n");
  EXPECT_EQ(returned, 0);
  EXPECT_TRUE(noChildLeft());
}
