#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
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

// Of this process's address space, as /proc shows it.
long mappedKb() {
  std::ifstream status("/proc/self/status");
  for (std::string field; status >> field;)
    if (field == "VmSize:" && status >> field) return std::stol(field);
  return -1;
}

bool noChildLeft() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

const char kNothing[] = "DAEMON: the plugin does not return anything on the stdout";

}  // namespace

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
  // A start's stack is kept for the next one, not mapped anew each time.
  const long mapped = mappedKb();
  for (int i = 0; i < 300; ++i) run(plugin("plugin_exit.sh"), "ok 0");
  EXPECT_LT(mappedKb() - mapped, 4096);
}

using ServiceLimits = TempDirTest;

TEST_F(ServiceLimits, PluginOverItsTimeLimitIsEndedWithWhatItStartedAndReportedUnknown) {
  const std::string timedOut = "UNKNOWN: plugin timed out after 1 seconds\n";
  const std::string never = path("never");
  // The plugin that ends by itself gets a limit that a loaded machine cannot reach.
  const std::vector<std::tuple<std::string, std::string, int, std::string, int>> cases = {
      {"/bin/sleep", "30", 3, timedOut, 1},
      {plugin("fault_background.sh"), path("started") + " " + never, 3, timedOut, 1},
      {plugin("fault_close_stdout.sh"), path("started") + " " + never, 3, timedOut, 1},
      {plugin("plugin_exit.sh"), "quick 0", 0, "quick\n", 60},
  };
  for (const auto& [program, parameter, code, out, seconds] : cases) {
    RunLimits limits;
    limits.timeoutSeconds = seconds;
    const Outcome r = run(program, parameter, limits);
    EXPECT_EQ(r.returned, code) << program;
    EXPECT_EQ(r.out, out) << program;
    EXPECT_EQ(r.error, "") << program;
    EXPECT_TRUE(noChildLeft()) << program;
    EXPECT_EQ(processesMentioning(never), 0) << program;
  }
  // One that closes its output and ends later, within its limit, is waited for.
  std::thread releaser([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    writeFile("release", "");
  });
  RunLimits generous;
  generous.timeoutSeconds = 60;
  const Outcome late =
      run(plugin("fault_close_stdout.sh"), path("late") + " " + path("release"), generous);
  releaser.join();
  EXPECT_EQ(late.returned, 2);
  EXPECT_EQ(late.out, "early\n");
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
  EXPECT_EQ(run(plugin("plugin_bytes.sh"), "\\303\\251", limited(1)).out,
            "[output truncated after 1 bytes]\n");
}

using ServicePinned = TempDirTest;

// Started from the open file, not from the path (which names nothing here): a binary, which must
// not inherit the descriptor, a #! script, which needs it, and a file that is not executable.
TEST_F(ServicePinned, PluginStartsFromTheOpenFile) {
  writeFile("data", "not a program\n");
  const std::vector<std::tuple<std::string, std::string, int, std::string>> cases = {
      {"/bin/sh", "-c 'test -e /proc/$$/fd/FD && echo open || echo closed'", 0, "closed\n"},
      {plugin("plugin_exit.sh"), "pinned 1", 1, "pinned\n"},
      {path("data"), "", 2, "DAEMON: plugin is not executable Permission denied\n"},
  };
  for (auto [file, parameter, code, out] : cases) {
    const auto executable =
        std::make_shared<const UniqueFd>(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(*executable) << file;
    const std::size_t fd = parameter.find("FD");
    if (fd != std::string::npos) parameter.replace(fd, 2, std::to_string(executable->get()));
    service s;
    s.Setpath(path("absent"));
    s.Setparameter(parameter);
    s.SetExecutable(executable);
    EXPECT_EQ(s.execute(), code) << file;
    EXPECT_EQ(s.GetStdout(), out) << file;
  }
}

using ServiceAlerting = TempDirTest;

TEST_F(ServiceAlerting, MissingProgramStillReturnsZero) {
  service s;
  ServiceTestPeer::setAlertingSoftware(s, "/nonexistent/alert");
  CapturedOutput printed(STDOUT_FILENO);
  const int returned = s.executeAlertingSoftware("down");
  EXPECT_EQ(printed.text(), "No such file or directory\n");
  EXPECT_EQ(returned, 0);
  EXPECT_TRUE(noChildLeft());
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
