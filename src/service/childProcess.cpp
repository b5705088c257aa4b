#include "src/service/childProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#if !defined(__x86_64__) && !defined(__aarch64__)
// resetSignalDispositions() hands the kernel its own sigaction layout, which differs by
// architecture; these two share it.
#error "the child-process code knows the kernel's sigaction layout of x86_64 and aarch64 only"
#endif

// The C library's clone() under its other exported name. ThreadSanitizer intercepts clone() and
// treats every call like a fork: in the child it resets its own state, which a child that shares
// the agent's memory would reset for the agent. Nothing intercepts __clone.
extern "C" int __clone(int (*entry)(void*), void* stack, int flags, void* argument, ...);

namespace {

// strerror() that is safe in a child: the texts are taken once, in the parent.
class ErrnoTexts {
 public:
  static const ErrnoTexts& get() { return *instance; }

  const char* text(int error) const noexcept {
    return error >= 0 && error < kCount ? texts_[error].c_str() : "Unknown error";
  }

 private:
  // Linux's errno values end at 133 (EHWPOISON).
  static constexpr int kCount = 256;

  // strerror() may go through the locale's message catalogue, which allocates and takes locks.
  // The agent never changes its locale, so the texts read exactly as strerror() would.
  ErrnoTexts() {
    for (int error = 0; error < kCount; ++error) texts_[error] = std::strerror(error);
  }

  // Made while the process starts, like the stack pool below, and never destroyed.
  static const ErrnoTexts* const instance;

  std::array<std::string, kCount> texts_;
};

const ErrnoTexts* const ErrnoTexts::instance = new ErrnoTexts;

// ---- The child's side: raw system calls only (see the header for why). ----

struct ChildArgs {
  const ChildSetup* setup;
  const sigset_t* mask;  // the starting thread's mask, given back before execve
  const ErrnoTexts* errnoTexts;
};

long sys(long number, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0) noexcept {
  return ::syscall(number, a, b, c, d, e);
}

void writeText(int fd, const char* text) noexcept {
  std::size_t left = 0;
  while (text[left] != '\0') ++left;
  while (left > 0) {
    const long written = sys(SYS_write, fd, reinterpret_cast<long>(text), static_cast<long>(left));
    if (written == -1) {
      if (errno == EINTR) continue;
      return;  // nobody is left to tell
    }
    text += written;
    left -= static_cast<std::size_t>(written);
  }
}

[[noreturn]] void exitChild(int status) noexcept {
  // exit_group ends only the child: it shares the agent's memory, not its thread group.
  for (;;) sys(SYS_exit_group, status);
}

// The kernel's struct sigaction on x86_64 and aarch64.
struct KernelSigaction {
  void (*handler)(int);
  unsigned long flags;
  void (*restorer)();
  std::uint64_t mask;
};

// A handler of the agent (SIGTERM's) must never run in the child, and an ignored signal would stay
// ignored across execve: every disposition goes back to the default. Without CLONE_SIGHAND the
// child's dispositions are its own copy, so the agent's are untouched. The kernel refuses SIGKILL
// and SIGSTOP, which are default anyway; nothing else can fail for a valid signal number.
void resetSignalDispositions() noexcept {
  KernelSigaction byDefault{};
  byDefault.handler = SIG_DFL;
  for (int signal = 1; signal < NSIG; ++signal) {
    if (signal == SIGKILL || signal == SIGSTOP) continue;
    sys(SYS_rt_sigaction, signal, reinterpret_cast<long>(&byDefault), 0, sizeof byDefault.mask);
  }
}

// Tells the agent that the program did not start. Through shared memory: only a child that shares
// it (spawnChild) can, and the agent reads it once the child has ended, as CLONE_VFORK waits.
void noteStartFailure(const ChildArgs& args, int error) noexcept {
  if (args.setup->startError != nullptr) *args.setup->startError = error;
}

// The line that tells the parent why the plugin did not start, then the end of the child.
[[noreturn]] void failStart(int fd, const ChildArgs& args, int error) noexcept {
  noteStartFailure(args, error);
  writeText(fd, args.setup->execFailurePrefix);
  writeText(fd, args.errnoTexts->text(error));
  writeText(fd, "\n");
  exitChild(2);
}

// A step of the confinement or of the limits that failed: the program never runs without them.
// Seen from outside as a failed execve, with a line naming the step.
[[noreturn]] void failSetup(int fd, const ChildArgs& args, const char* step, int error) noexcept {
  noteStartFailure(args, error);
  writeText(fd, "DAEMON: plugin not run: ");
  writeText(fd, step);
  writeText(fd, " failed: ");
  writeText(fd, args.errnoTexts->text(error));
  writeText(fd, "\n");
  exitChild(2);
}

// The kernel's struct rlimit64.
struct KernelRlimit {
  std::uint64_t current;
  std::uint64_t maximum;
};

// Lowers `resource` of the child to `soft` and `hard`, each kept at or below the inherited hard
// limit (raising it would fail for the agent's user). 0, or -1 with errno.
long lowerLimit(int resource, std::uint64_t soft, std::uint64_t hard) noexcept {
  KernelRlimit limit{};
  if (sys(SYS_prlimit64, 0, resource, 0, reinterpret_cast<long>(&limit)) == -1) return -1;
  limit.maximum = hard < limit.maximum ? hard : limit.maximum;
  limit.current = soft < limit.maximum ? soft : limit.maximum;
  return sys(SYS_prlimit64, 0, resource, reinterpret_cast<long>(&limit), 0);
}

// The confinement and the limits, before the child does anything else: the ruleset's descriptor
// may be one of 0 to 2 in an agent started without them, which the output's set-up would replace.
// Credentials and limits are the child's own, not the agent's, though it shares the agent's memory.
// None of these calls can be interrupted by a signal.
void confineAndLimit(int failureFd, const ChildArgs& args) noexcept {
  const ChildSetup& setup = *args.setup;
  if (setup.landlockRuleset >= 0) {
    // landlock_restrict_self requires it; the plugin gains no privilege through execve either.
    if (sys(SYS_prctl, PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == -1)
      failSetup(failureFd, args, "prctl(PR_SET_NO_NEW_PRIVS)", errno);
    if (sys(SYS_landlock_restrict_self, setup.landlockRuleset, 0) == -1)
      failSetup(failureFd, args, "landlock_restrict_self", errno);
  }
  if (setup.cpuSeconds > 0 && lowerLimit(RLIMIT_CPU, setup.cpuSeconds, setup.cpuSeconds + 1) == -1)
    failSetup(failureFd, args, "prlimit(RLIMIT_CPU)", errno);
  if (setup.addressSpaceBytes > 0 &&
      lowerLimit(RLIMIT_AS, setup.addressSpaceBytes, setup.addressSpaceBytes) == -1)
    failSetup(failureFd, args, "prlimit(RLIMIT_AS)", errno);
}

// close_range over [first, last]; only an old kernel lacks it, and then gets the slow loop up to
// the descriptor limit.
void closeRange(unsigned first, unsigned last) noexcept {
  if (first > last) return;
  if (sys(SYS_close_range, first, last, 0) == -1) {
    for (unsigned long fd = first; fd <= last && fd < 65536; ++fd)
      sys(SYS_close, static_cast<long>(fd));
  }
}

// execveat(fd, "", AT_EMPTY_PATH): the open file itself, as a binary or as a script.
int execOpenFile(int fd, const ChildSetup& setup, char* const* envp) noexcept {
  const auto start = [&] {
    sys(SYS_execveat, fd, reinterpret_cast<long>(""), reinterpret_cast<long>(setup.argv),
        reinterpret_cast<long>(envp), AT_EMPTY_PATH);
    return errno;
  };
  const int error = start();
  // A file the kernel hands to an interpreter (#!) is refused with ENOENT while its descriptor is
  // close-on-exec: the interpreter could not open /dev/fd/N once the exec had closed it. The flag
  // is cleared on this one descriptor, in the child's own descriptor table (no CLONE_FILES, so the
  // agent's stays as it is), and the start tried again.
  if (error != ENOENT || sys(SYS_fcntl, fd, F_SETFD, 0) == -1) return error;
  return start();
}

[[noreturn]] void runChild(const ChildArgs& args) noexcept {
  const ChildSetup& setup = *args.setup;
  // Where a failure before the output's set-up is told.
  const int failureFd = setup.outputFd >= 0 ? setup.outputFd : STDOUT_FILENO;
  confineAndLimit(failureFd, args);
  int executable = setup.executableFd;
  if (executable >= 0 && executable <= STDERR_FILENO) {
    // An agent started without descriptors 0 to 2 may hold the executable there, where the
    // plugin's own are about to be set up: it moves above them first, close-on-exec still.
    executable = static_cast<int>(sys(SYS_fcntl, executable, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (executable == -1) failStart(failureFd, args, errno);
  }
  if (setup.unusedFd >= 0) sys(SYS_close, setup.unusedFd);
  if (setup.outputFd >= 0) {
    long redirected;
    if (setup.outputFd == STDOUT_FILENO) {
      // The agent had no descriptor 1, so the pipe got it; dup2() onto itself would keep the
      // close-on-exec flag and the plugin would lose its output: clear the flag instead.
      redirected = sys(SYS_fcntl, STDOUT_FILENO, F_SETFD, 0);
    } else {
      while ((redirected = sys(SYS_dup3, setup.outputFd, STDOUT_FILENO, 0)) == -1 &&
             errno == EINTR) {
      }
    }
    if (redirected == -1) {
      const int error = errno;
      noteStartFailure(args, error);
      writeText(STDERR_FILENO, "EXEC fils: erreur de redirection de flux (dup2): ");
      writeText(STDERR_FILENO, args.errnoTexts->text(error));
      writeText(STDERR_FILENO, "\n");
      sys(SYS_close, setup.outputFd);
      exitChild(2);
    }
    if (setup.outputFd != STDOUT_FILENO) sys(SYS_close, setup.outputFd);
  }

  // The link's socket and the log file carry no close-on-exec flag, and another worker may have
  // a pipe open at this moment: a plugin gets descriptors 0 to 2 and nothing else, but for the
  // executable it is started from.
  if (executable < 0) {
    closeRange(3, ~0U);
  } else {
    closeRange(3, static_cast<unsigned>(executable) - 1);
    closeRange(static_cast<unsigned>(executable) + 1, ~0U);
  }

  // A plugin that signals its own group (`trap 'kill 0' EXIT`) must not reach the agent, and a
  // time limit ends the plugin with everything it started. Cannot fail for a child that has not
  // called execve yet and is no session leader; if it did, the plugin would merely share the
  // agent's group, as it always has.
  if (setup.ownProcessGroup) sys(SYS_setpgid, 0, 0);

  resetSignalDispositions();
  sys(SYS_rt_sigprocmask, SIG_SETMASK, reinterpret_cast<long>(args.mask), 0, sizeof(std::uint64_t));

  char* const* const envp = setup.envp != nullptr ? setup.envp : environ;
  if (executable >= 0) failStart(STDOUT_FILENO, args, execOpenFile(executable, setup, envp));
  sys(SYS_execve, reinterpret_cast<long>(setup.path), reinterpret_cast<long>(setup.argv),
      reinterpret_cast<long>(envp));
  failStart(STDOUT_FILENO, args, errno);
}

int cloneEntry(void* args) { runChild(*static_cast<const ChildArgs*>(args)); }

// ---- The parent's side. ----

// The children's stacks, kept for the next start: a stack is busy only while its clone() runs, so
// there are never more than the threads starting a plugin at the same moment, and unmapping a
// stack that a child has touched would cost a TLB shoot-down on every core at each start. Each
// stack has a guard page below it; the child's frames are small and bounded (no recursion, no
// allocation), a few hundred bytes in all.
class StackPool {
 public:
  static StackPool& get() { return *instance; }

  // The base of a stack, or null with errno set.
  void* take() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!free_.empty()) {
      void* const base = free_.back();
      free_.pop_back();
      return base;
    }
    try {
      free_.reserve(mapped_ + 1);  // so that give() never allocates
    } catch (const std::bad_alloc&) {
      errno = ENOMEM;
      return nullptr;
    }
    void* const base = ::mmap(nullptr, kGuard + kSize, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK | MAP_NORESERVE, -1, 0);
    if (base == MAP_FAILED) return nullptr;
    if (::mprotect(base, kGuard, PROT_NONE) == -1) {
      const int error = errno;
      ::munmap(base, kGuard + kSize);
      errno = error;
      return nullptr;
    }
    ++mapped_;
    return base;
  }
  void give(void* base) noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    free_.push_back(base);
  }

  // The stack grows down: clone() takes its top.
  static void* top(void* base) noexcept { return static_cast<char*>(base) + kGuard + kSize; }

 private:
  static constexpr std::size_t kSize = 32 * 1024;
  static constexpr std::size_t kGuard = 4096;
  // Made while the process starts, before any thread: a function-local static would be guarded
  // by code built here without instrumentation, out of ThreadSanitizer's sight. Never destroyed:
  // a worker may still be starting a plugin while the process exits.
  static StackPool* const instance;

  std::mutex mutex_;
  std::vector<void*> free_;
  std::size_t mapped_ = 0;
};

StackPool* const StackPool::instance = new StackPool;

// One stack of the pool, for the span of one start.
class ChildStack {
 public:
  ChildStack() : base_(StackPool::get().take()) {}
  ChildStack(const ChildStack&) = delete;
  ChildStack& operator=(const ChildStack&) = delete;
  ~ChildStack() {
    if (base_ != nullptr) StackPool::get().give(base_);
  }

  bool ok() const noexcept { return base_ != nullptr; }
  void* top() const noexcept { return StackPool::top(base_); }

 private:
  void* base_;
};

// Runs start(args) with every signal blocked in the calling thread, so that no handler of the
// agent can run in the child before it has reset them; the caller gets its mask back right after.
template <typename Start>
pid_t withSignalsBlocked(const ChildSetup& setup, Start start) {
  sigset_t all;
  sigset_t previous;
  ::sigfillset(&all);
  const int blocked = ::pthread_sigmask(SIG_SETMASK, &all, &previous);
  if (blocked != 0) {
    errno = blocked;
    return -1;
  }
  const ChildArgs args{&setup, &previous, &ErrnoTexts::get()};
  const pid_t pid = start(args);
  const int startError = errno;
  // Cannot fail: the same call with a valid mask has just succeeded.
  ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  errno = startError;
  return pid;
}

}  // namespace

// execve takes char* const[] for historical reasons; it never writes through them.
ArgumentVector::ArgumentVector(const std::string& program, const std::vector<std::string>& items) {
  pointers_.reserve(items.size() + 2);
  pointers_.push_back(const_cast<char*>(program.c_str()));
  for (const std::string& item : items) pointers_.push_back(const_cast<char*>(item.c_str()));
  pointers_.push_back(nullptr);
}

pid_t spawnChild(const ChildSetup& setup) {
  ChildStack stack;
  if (!stack.ok()) return -1;
  return withSignalsBlocked(setup, [&stack](const ChildArgs& args) {
    // CLONE_VFORK: this thread sleeps until the child has called execve or ended, so the stack,
    // the setup and the mask it reads stay valid, and are free again when clone() returns.
    return __clone(cloneEntry, stack.top(), CLONE_VM | CLONE_VFORK | SIGCHLD,
                   const_cast<ChildArgs*>(&args));
  });
}

pid_t forkChild(const ChildSetup& setup) {
  return withSignalsBlocked(setup, [](const ChildArgs& args) {
    const pid_t pid = ::fork();
    if (pid == 0) runChild(args);
    return pid;
  });
}

pid_t waitRetry(pid_t pid, int* status, int options, rusage* usage) {
  pid_t result;
  while ((result = ::wait4(pid, status, options, usage)) == -1 && errno == EINTR) {
  }
  return result;
}

ChildProcess::~ChildProcess() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  int ignored;
  waitRetry(pid_, &ignored, 0);
}

int Deadline::millisecondsLeft() const {
  const auto left = at_ - std::chrono::steady_clock::now();
  if (left <= std::chrono::steady_clock::duration::zero()) return 0;
  return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count());
}

int waitReadable(int fd, const Deadline& deadline) {
  pollfd watched{fd, POLLIN, 0};
  for (;;) {
    const int ready = ::poll(&watched, 1, deadline.millisecondsLeft());
    if (ready != -1 || errno != EINTR) return ready > 0 ? 1 : ready;
  }
}

pid_t ChildProcess::wait(int* status, const Deadline& deadline, rusage* usage) noexcept {
  pid_t result;
  if (!deadline.set()) {
    result = waitRetry(pid_, status, WUNTRACED | WCONTINUED, usage);
  } else {
    // There is no waitpid with a time-out. Once the output has ended, the child normally ends
    // within microseconds, so the first looks come quickly; one that closed its output and runs
    // on is looked at every 50 ms at most.
    auto pause = std::chrono::microseconds(20);
    for (;;) {
      result = waitRetry(pid_, status, WNOHANG | WUNTRACED | WCONTINUED, usage);
      if (result != 0) break;
      const int left = deadline.millisecondsLeft();
      if (left == 0) return 0;
      std::this_thread::sleep_for(
          std::min<std::chrono::microseconds>(pause, std::chrono::milliseconds(left)));
      pause = std::min<std::chrono::microseconds>(pause * 2, std::chrono::milliseconds(50));
    }
  }
  // After a failure the pid may already be reaped by someone else and reused: never kill it.
  if (result == -1 || WIFEXITED(*status) || WIFSIGNALED(*status)) pid_ = 0;
  return result;
}
