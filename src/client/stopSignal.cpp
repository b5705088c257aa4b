#include "src/client/stopSignal.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>

namespace stopSignal {
namespace {

// Descriptors of the wake-up pipe; -1 until armed. Atomics, because the handler may run on any
// thread and lock-free atomics are safe to touch from signal context.
std::atomic<int> readEnd{-1};
std::atomic<int> writeEnd{-1};
std::atomic<int> pending{0};
std::atomic<bool> reloadPending{false};

extern "C" void recordSignal(int signo) {
  const int savedErrno = errno;
  pending.store(signo);
  wake();
  errno = savedErrno;
}

extern "C" void recordReload(int /*signo*/) {
  const int savedErrno = errno;
  reloadPending.store(true);
  wake();
  errno = savedErrno;
}

void drain() {
  char bytes[64];
  const int fd = readEnd.load();
  while (fd >= 0) {
    const ssize_t n = read(fd, bytes, sizeof bytes);
    if (n > 0) continue;
    if (n < 0 && errno == EINTR) continue;
    break;  // empty (EAGAIN) or closed
  }
}

void createPipe() {
  if (readEnd.load() >= 0) return;
  int fds[2];
  // Close-on-exec so plugins never inherit it; non-blocking so a burst of wake-ups can never
  // block a writer in signal context once the pipe is full.
  if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
    readEnd.store(fds[0]);
    writeEnd.store(fds[1]);
  }
}

}  // namespace

void arm(int signo) {
  createPipe();
  signal(signo, recordSignal);
}

void armReload(int signo) {
  createPipe();
  signal(signo, recordReload);
}

bool sleepFor(std::chrono::milliseconds duration) {
  const int fd = readEnd.load();
  const auto deadline = std::chrono::steady_clock::now() + duration;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    if (fd < 0) {
      // Not armed: a plain pause, still resumed after a signal interrupts it.
      const timespec pause{static_cast<time_t>(left.count() / 1000),
                           static_cast<long>(left.count() % 1000) * 1000000L};
      nanosleep(&pause, nullptr);
      continue;
    }
    pollfd waiter{fd, POLLIN, 0};
    const int ready = poll(&waiter, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready > 0) {
      drain();
      return true;
    }
    if (ready == 0) return false;
    return false;  // poll failed for another reason: treat as the end of the pause
  }
}

int takePending() { return pending.exchange(0); }

bool takeReload() { return reloadPending.exchange(false); }

void wake() {
  const int fd = writeEnd.load();
  if (fd < 0) return;
  const char byte = 1;
  ssize_t n;
  do {
    n = write(fd, &byte, 1);
  } while (n < 0 && errno == EINTR);
  // A full pipe (EAGAIN) already holds a pending wake-up: nothing is lost.
}

}  // namespace stopSignal
