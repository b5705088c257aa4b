// End to end: the real qavel-client in a sandbox against the protocol peer in this process, every
// order `check_dummy 0 OK`, and in the same run the bare spawn of the same plugin (posix_spawn and
// vfork, a pipe read to its end, waitpid) as the baseline. Then 64 orders in flight against a
// fresh agent of each opt-in that costs on the order path (metrics_file, plugin_rules,
// confine_plugins), each beside a fresh agent without it in the same run. Prints one table.
//   usage: bench_agent [orders per row, default 4000] [agent, default the one built beside it]
// As root: the agent's sandbox is a private mount namespace.
#include <fcntl.h>
#include <openssl/evp.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tools/harness/agentSandbox.h"
#include "tools/harness/answerBook.h"
#include "tools/peer/qavelServer.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr const char* kPlugin = "/usr/lib/nagios/plugins/check_dummy";
constexpr auto kPatience = std::chrono::seconds(120);  // no row may take longer

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "bench_agent: %s\n", what.c_str());
  std::exit(1);
}

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

double percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[static_cast<std::size_t>(p * static_cast<double>(values.size() - 1))];
}

// ---- The baseline: the same plugin started bare. ----

char* const kArgv[] = {const_cast<char*>(kPlugin), const_cast<char*>("0"), const_cast<char*>("OK"),
                       nullptr};
char* const kEnvironment[] = {nullptr};

void drainAndReap(int readEnd, pid_t pid) {
  char buffer[1024];
  while (read(readEnd, buffer, sizeof buffer) > 0) {
  }
  close(readEnd);
  int status;
  if (waitpid(pid, &status, 0) == -1 || status != 0) fail("bare spawn: plugin failed");
}

void spawnWithPosixSpawn() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) == -1) fail("pipe2");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  pid_t pid;
  if (posix_spawn(&pid, kPlugin, &actions, nullptr, kArgv, kEnvironment) != 0) fail("posix_spawn");
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  drainAndReap(ends[0], pid);
}

void spawnWithVfork() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) == -1) fail("pipe2");
  const pid_t pid = vfork();
  if (pid == 0) {
    dup2(ends[1], STDOUT_FILENO);
    execve(kPlugin, kArgv, kEnvironment);
    _exit(127);
  }
  if (pid == -1) fail("vfork");
  close(ends[1]);
  drainAndReap(ends[0], pid);
}

// Spawns per second with `threads` threads sharing `spawns`.
double spawnRate(void (*spawn)(), int threads, int spawns) {
  const auto start = Clock::now();
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t)
    workers.emplace_back([=] {
      for (int i = 0; i < spawns / threads; ++i) spawn();
    });
  for (std::thread& worker : workers) worker.join();
  return spawns / seconds(Clock::now() - start);
}

std::vector<double> spawnLatencies(void (*spawn)(), int spawns) {
  std::vector<double> latencies;
  for (int i = 0; i < spawns; ++i) {
    const auto start = Clock::now();
    spawn();
    latencies.push_back(seconds(Clock::now() - start));
  }
  return latencies;
}

// ---- The agent. ----

// What /proc/<pid>/stat says of the CPU time of a process and of its reaped children.
struct CpuTimes {
  double own = 0;
  double children = 0;
};

CpuTimes cpuTimes(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  // The fields after the command name, which may hold blanks, start after its closing bracket.
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::vector<std::string> field((std::istream_iterator<std::string>(fields)),
                                 std::istream_iterator<std::string>());
  if (field.size() < 15) fail("cannot read /proc/" + std::to_string(pid) + "/stat");
  const double tick = static_cast<double>(sysconf(_SC_CLK_TCK));
  // utime, stime, cutime, cstime are fields 14 to 17 of the line, 11 to 14 after the bracket.
  return {(std::stod(field[11]) + std::stod(field[12])) / tick,
          (std::stod(field[13]) + std::stod(field[14])) / tick};
}

// The SHA-256 of a file, as sha256sum prints it.
std::string sha256Of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string content((std::istreambuf_iterator<char>(file)),
                            std::istreambuf_iterator<char>());
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (!file ||
      EVP_Digest(content.data(), content.size(), digest, &size, EVP_sha256(), nullptr) != 1)
    fail("cannot hash " + path);
  std::string hex;
  char pair[3];
  for (unsigned int i = 0; i < size; ++i) {
    std::snprintf(pair, sizeof pair, "%02x", digest[i]);
    hex += pair;
  }
  return hex;
}

struct Row {
  std::string name;
  std::string value;
  std::string note;
};

class Bench {
 public:
  explicit Bench(int orders) : orders_(orders) {}

  void run(const std::string& agent, const std::string& sandboxRun) {
    baseline();
    qavel::ServerOptions options;
    options.onFrame = [this](const qavel::ReceivedFrame& frame) { answers_.record(frame); };
    qavel::QavelServer server(options);
    server.start();
    server_ = &server;
    const agentSandbox::Paths paths{agent, sandboxRun};
    {
      const auto sandbox = startAgent(paths, Configure());
      inFlight(8);
      inFlight(64);
      latency(1);
      latency(5);
      burst(10000);
    }
    compareOptIns(paths);
    print();
  }

 private:
  using Configure = std::function<void(agentSandbox&)>;

  // A fresh agent with check_dummy, configured by `configure`, once it has answered one order.
  std::unique_ptr<agentSandbox> startAgent(const agentSandbox::Paths& paths,
                                           const Configure& configure) {
    auto sandbox =
        std::make_unique<agentSandbox>(paths, "wss://127.0.0.1:" + std::to_string(server_->port()));
    sandbox->addPlugin("check_dummy", kPlugin);
    if (configure) configure(*sandbox);
    const std::size_t before = answers_.size();
    sandbox->start({"-f", "/etc/nivo/qavel.conf"});  // production logging: no debug lines
    sandbox_ = sandbox.get();
    // The link the peer's sends go to is the newest: wait for this agent's REGISTER first.
    if (!answers_.waitForRegister(kPatience, ++agents_))
      fail("the agent did not register; its log:\n" + sandbox->log());
    send(nextTask_++, 5);  // waits for the pools if they do not exist yet
    if (!answers_.waitForCount(before + 1))
      fail("the agent did not answer; its log:\n" + sandbox->log());
    return sandbox;
  }

  // 64 in flight, long enough for several writes of the metrics file, against a fresh agent with
  // each opt-in and, in turn, a fresh agent without, so that each ratio is of the same conditions.
  void compareOptIns(const agentSandbox::Paths& paths) {
    const std::string hash = sha256Of(kPlugin);
    const std::pair<std::string, Configure> optIns[] = {
        {"metrics_file on",
         [](agentSandbox& sandbox) {
           sandbox.setKey("LOG", "metrics_file", "/tmp/nivo/nivo-agent.prom");
         }},
        {"plugin_rules (sha256=, args=)",
         [&hash](agentSandbox& sandbox) {
           sandbox.writeFile("etc/plugin-rules",
                             "check_dummy sha256=" + hash + " args=[0-3] [A-Z]{1,8}\n");
           sandbox.setKey("NIVO", "plugin_rules", "/etc/nivo/plugin-rules");
         }},
        {"confine_plugins on (Landlock)",
         [](agentSandbox& sandbox) { sandbox.setKey("NIVO", "confine_plugins", "1"); }},
    };
    const int orders = orders_ * 5;
    for (const auto& [name, configure] : optIns) {
      // The better of two rounds of each, taken in turn: a passing load elsewhere on the machine
      // then weighs on both sides alike.
      Measure without;
      Measure with;
      for (int round = 0; round < 2; ++round) {
        for (Measure* best : {&without, &with}) {
          const auto sandbox = startAgent(paths, best == &with ? configure : Configure());
          const Measure measured = measureInFlight(64, orders);
          if (measured.rate > best->rate) best->rate = measured.rate;
          if (best->ownCpu == 0 || measured.ownCpu < best->ownCpu) best->ownCpu = measured.ownCpu;
        }
      }
      char text[96];
      std::snprintf(text, sizeof text, "%.2f x the same without (%s), best of 2",
                    with.rate / without.rate, rate(without.rate).c_str());
      rows_.push_back({"64 in flight, " + name, rate(with.rate), text});
      std::snprintf(text, sizeof text, "%+.0f us over the same without",
                    (with.ownCpu - without.ownCpu) * 1e6);
      rows_.push_back({"  agent CPU per check, own", microseconds(with.ownCpu), text});
    }
  }

 private:
  void send(int task, int priority) { server_->sendExec(task, "check_dummy", "0 OK", priority); }

  void baseline() {
    spawnRate(spawnWithPosixSpawn, 2, 100);  // warm up: page cache, dynamic loader
    posixSpawnRate_ = spawnRate(spawnWithPosixSpawn, 2, orders_);
    const double vforkRate = spawnRate(spawnWithVfork, 2, orders_);
    const std::vector<double> latencies = spawnLatencies(spawnWithPosixSpawn, 500);
    bareP50_ = percentile(latencies, 0.5);
    rows_.push_back({"bare posix_spawn, 2 threads", rate(posixSpawnRate_), "the baseline"});
    rows_.push_back({"bare vfork, 2 threads", rate(vforkRate), ratio(vforkRate)});
    rows_.push_back({"bare posix_spawn, one at a time", latencyText(latencies), ""});
  }

  struct Measure {
    double rate = 0;      // checks per second
    double ownCpu = 0;    // agent CPU seconds per check, its own
    double childCpu = 0;  // and its plugins'
  };

  // `window` orders outstanding at all times, priority 5, `orders` of them in all.
  Measure measureInFlight(int window, int orders) {
    const int first = nextTask_;
    const int last = first + orders - 1;
    nextTask_ = last + 1;
    {
      const std::lock_guard<std::mutex> lock(sendLock_);
      nextInFlight_ = first + window;
      lastInFlight_ = last;
    }
    // Members, not locals: the peer's thread may still be in the hook as this row ends.
    answers_.onAnswer([this] {
      const std::lock_guard<std::mutex> lock(sendLock_);
      if (nextInFlight_ <= lastInFlight_) send(nextInFlight_++, 5);
    });
    const std::size_t before = answers_.size();
    const CpuTimes cpuBefore = cpuTimes(sandbox_->pid());
    const auto start = Clock::now();
    // Not under sendLock_: the hook runs on the peer's thread, which this send waits for.
    for (int task = first; task < first + window; ++task) send(task, 5);
    if (!answers_.waitForCount(before + orders)) fail("orders left unanswered");
    const double elapsed = seconds(answers_.lastArrival() - start);
    const CpuTimes cpuAfter = cpuTimes(sandbox_->pid());
    answers_.onAnswer(nullptr);
    return {orders / elapsed, (cpuAfter.own - cpuBefore.own) / orders,
            (cpuAfter.children - cpuBefore.children) / orders};
  }

  void inFlight(int window) {
    const Measure measured = measureInFlight(window, orders_);
    rows_.push_back(
        {std::to_string(window) + " in flight", rate(measured.rate), ratio(measured.rate)});
    rows_.push_back({"  agent CPU per check, own / children",
                     microseconds(measured.ownCpu) + " / " + microseconds(measured.childCpu), ""});
  }

  // One order at a time on one pool's lane.
  void latency(int priority) {
    std::vector<double> latencies;
    for (int i = 0; i < 500; ++i) {
      const int task = nextTask_++;
      const std::size_t before = answers_.size();
      const auto start = Clock::now();
      send(task, priority);
      if (!answers_.waitForCount(before + 1)) fail("an order was left unanswered");
      latencies.push_back(seconds(answers_.arrival(task) - start));
    }
    const double slower = percentile(latencies, 0.5) - bareP50_;
    rows_.push_back({"one at a time, priority " + std::to_string(priority) +
                         (priority <= 4 ? " (web pool)" : " (monitor pool)"),
                     latencyText(latencies), "p50 " + signedMs(slower) + " over bare"});
  }

  void burst(int count) {
    const int first = nextTask_;
    const int last = first + count - 1;
    nextTask_ = last + 1;
    const std::size_t before = answers_.size();
    long peakThreads = 0;
    const auto start = Clock::now();
    for (int task = first; task <= last; ++task) send(task, 1 + task % 9);
    // Waits while answers keep coming; the pools never shrink, so sampling catches the peak.
    std::size_t seen = answers_.size();
    auto progress = Clock::now();
    while (answers_.size() < before + count && Clock::now() - progress < kPatience) {
      peakThreads = std::max(peakThreads, sandbox_->procStatus("Threads"));
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      if (answers_.size() != seen) {
        seen = answers_.size();
        progress = Clock::now();
      }
    }
    peakThreads = std::max(peakThreads, sandbox_->procStatus("Threads"));
    const double elapsed = seconds(answers_.lastArrival() - start);
    const auto [lost, duplicated] = answers_.lostAndDuplicated(first, last);
    const double checksPerSecond = (count - lost) / elapsed;
    char text[160];
    std::snprintf(text, sizeof text, "%.1f s, %s", elapsed, rate(checksPerSecond).c_str());
    rows_.push_back(
        {"burst of " + std::to_string(count) + " at once", text, ratio(checksPerSecond)});
    std::snprintf(text, sizeof text, "%.1f MiB, %ld threads, %d lost, %d duplicated",
                  static_cast<double>(sandbox_->procStatus("VmHWM")) / 1024, peakThreads, lost,
                  duplicated);
    rows_.push_back({"  peak RSS, peak threads, answers", text, ""});
  }

  std::string rate(double perSecond) const {
    char text[32];
    std::snprintf(text, sizeof text, "%.0f checks/s", perSecond);
    return text;
  }
  std::string ratio(double perSecond) const {
    char text[48];
    std::snprintf(text, sizeof text, "%.2f x bare posix_spawn", perSecond / posixSpawnRate_);
    return text;
  }
  static std::string microseconds(double secondsValue) {
    char text[32];
    std::snprintf(text, sizeof text, "%.0f us", secondsValue * 1e6);
    return text;
  }
  static std::string signedMs(double secondsValue) {
    char text[32];
    std::snprintf(text, sizeof text, "%+.2f ms", secondsValue * 1e3);
    return text;
  }
  static std::string latencyText(const std::vector<double>& latencies) {
    char text[64];
    std::snprintf(text, sizeof text, "p50 %.2f ms, p99 %.2f ms", percentile(latencies, 0.5) * 1e3,
                  percentile(latencies, 0.99) * 1e3);
    return text;
  }

  void print() const {
    std::printf("qavel-client against the in-process peer, %s 0 OK, thread=2, %d orders a row\n",
                kPlugin, orders_);
    for (const Row& row : rows_)
      std::printf("%-46s %-36s %s\n", row.name.c_str(), row.value.c_str(), row.note.c_str());
  }

  const int orders_;
  qavel::QavelServer* server_ = nullptr;
  AnswerBook answers_{kPatience};
  std::size_t agents_ = 0;                 // started so far
  const agentSandbox* sandbox_ = nullptr;  // the agent of the row
  int nextTask_ = 1;
  std::mutex sendLock_;
  int nextInFlight_ = 0;  // under sendLock_
  int lastInFlight_ = 0;
  double posixSpawnRate_ = 0;
  double bareP50_ = 0;
  std::vector<Row> rows_;
};

}  // namespace

int main(int argc, char** argv) {
  const int orders = argc > 1 ? std::atoi(argv[1]) : 4000;
  if (orders < 100) fail("usage: bench_agent [orders per row, at least 100] [agent]");
  if (geteuid() != 0) fail("run as root: the agent's sandbox is a private mount namespace");
  if (access(kPlugin, X_OK) != 0)
    fail(std::string(kPlugin) + " missing (monitoring-plugins-basic)");
  signal(SIGPIPE, SIG_IGN);
  Bench(orders).run(argc > 2 ? argv[2] : NIVO_AGENT_PATH, NIVO_SANDBOX_RUN);
  return 0;
}
