// Spawn rate of service::execute() against the same spawns made directly with vfork, execve and
// waitpid (the output still read from a pipe, as any runner must), on 1 and 2 threads. vfork is
// the bare form of what execute() does: the child runs in the parent's memory until execve. The two
// take turns in short rounds of kRoundSpawns so that a busy neighbour slows both alike.
//   usage: bench_execute [spawns per row, default 2000]
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

#include "src/service/service.h"

namespace {

constexpr const char* kPlugin = "/usr/lib/nagios/plugins/check_dummy";

void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

void throughService(int spawns) {
  service s;
  s.Setname("dummy");
  s.Setpath(kPlugin);
  s.Setparameter("0 OK");
  for (int i = 0; i < spawns; ++i) {
    if (s.execute() != 0) fail("execute");
  }
}

// The child's side in a frame of its own: vfork() may clobber the caller's registers.
__attribute__((noinline)) pid_t startDirect(int outputFd) {
  static char* const argv[] = {const_cast<char*>(kPlugin), const_cast<char*>("0"),
                               const_cast<char*>("OK"), nullptr};
  static char* const environment[] = {nullptr};
  const pid_t pid = vfork();
  if (pid == 0) {
    dup2(outputFd, STDOUT_FILENO);
    execve(kPlugin, argv, environment);
    _exit(127);
  }
  return pid;
}

void direct(int spawns) {
  for (int i = 0; i < spawns; ++i) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) == -1) fail("pipe2");
    const pid_t pid = startDirect(ends[1]);
    if (pid == -1) fail("vfork");
    close(ends[1]);
    char buffer[1024];
    while (read(ends[0], buffer, sizeof buffer) > 0) {
    }
    close(ends[0]);
    int status;
    if (waitpid(pid, &status, 0) == -1 || status != 0) fail("waitpid");
  }
}

// Seconds taken by `spawns` runs of `body` shared out over `threads` threads.
double timed(const std::function<void(int)>& body, int threads, int spawns) {
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) workers.emplace_back(body, spawns / threads);
  for (std::thread& worker : workers) worker.join();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  const int spawns = argc > 1 ? std::atoi(argv[1]) : 2000;
  if (access(kPlugin, X_OK) != 0) fail(kPlugin);
  constexpr int kRoundSpawns = 20;
  const int rounds = spawns / kRoundSpawns;
  if (rounds < 1) {
    std::fprintf(stderr, "usage: bench_execute [spawns per row, at least %d]\n", kRoundSpawns);
    return 1;
  }
  timed(throughService, 1, 20);  // warm up: page cache, dynamic loader
  timed(direct, 1, 20);

  std::printf("%s 0 OK, %d spawns per row in %d alternating rounds\n", kPlugin,
              rounds * kRoundSpawns, rounds);
  std::printf("%-8s %14s %14s %14s\n", "threads", "execute()/s", "vfork/s", "ratio");
  for (const int threads : {1, 2}) {
    double serviceSeconds = 0;
    double directSeconds = 0;
    for (int round = 0; round < rounds; ++round) {
      serviceSeconds += timed(throughService, threads, kRoundSpawns);
      directSeconds += timed(direct, threads, kRoundSpawns);
    }
    const double total = static_cast<double>(rounds) * kRoundSpawns;
    std::printf("%-8d %14.1f %14.1f %14.3f\n", threads, total / serviceSeconds,
                total / directSeconds, directSeconds / serviceSeconds);
  }
  return 0;
}
