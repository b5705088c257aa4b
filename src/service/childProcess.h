// Starting and reaping the agent's child processes. A plugin is started with clone(CLONE_VM |
// CLONE_VFORK) on a stack of its own, as the C library's posix_spawn does: nothing of the agent's
// address space is copied, so the cost of a start does not grow with the agent's memory or its
// thread count. The alerting program is started with a plain fork().
//
// Between the start and execve the child runs only the code of childProcess.cpp, which makes raw
// system calls and nothing else: it shares the agent's memory, so it must not allocate, lock or
// call a function that a sanitizer intercepts (that would write the interceptor's state in the
// agent's memory). The file is built without sanitizer instrumentation for the same reason.
// A confined plugin's child first restricts itself (no_new_privs, Landlock) and lowers its resource
// limits: the kernel keeps credentials and limits per process, so the agent keeps its own.
#pragma once

#include <signal.h>
#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

// The argv of execve: the program path, the items, a null pointer. Built whole before the start,
// because the child may not allocate. It points into the strings it is given, which must outlive
// it: an argument may be megabytes long, and is not copied again.
class ArgumentVector {
 public:
  ArgumentVector(const std::string& program, const std::vector<std::string>& items);
  ArgumentVector(const ArgumentVector&) = delete;
  ArgumentVector& operator=(const ArgumentVector&) = delete;

  char* const* get() const noexcept { return pointers_.data(); }

 private:
  std::vector<char*> pointers_;
};

// What the child does, all prepared by the parent.
struct ChildSetup {
  const char* path = nullptr;
  char* const* argv = nullptr;
  char* const* envp = nullptr;  // null: the agent's own environment, as execv passes it
  int outputFd = -1;            // becomes descriptor 1; -1 keeps the agent's standard output
  int unusedFd = -1;  // the parent's end of the pipe, closed in the child; -1 when there is none
  const char* execFailurePrefix = "";  // starts the line written on descriptor 1 if execve fails
  bool ownProcessGroup = false;        // the child leads a new process group
  // An open executable, started with execveat(AT_EMPTY_PATH) instead of execve(path): the file
  // that was opened is the file that runs, whatever `path` names by then. It stays close-on-exec
  // for a binary; a script keeps it open, since its interpreter reads it through /dev/fd. -1: path.
  int executableFd = -1;
  // Set by a child of spawnChild that could not start the program: why (an errno value). It is
  // still seen as before from outside: a line on its output and exit status 2.
  int* startError = nullptr;
  // A Landlock ruleset (PluginConfinement) the child restricts itself with, after no_new_privs,
  // before it touches any descriptor; -1: not confined. Used before the child closes what it does
  // not pass on, so it may stay close-on-exec.
  int landlockRuleset = -1;
  // RLIMIT_CPU in seconds (SIGXCPU then, SIGKILL a second later) and RLIMIT_AS in bytes; 0: as
  // inherited. Only ever lowered: never above the inherited hard limit.
  unsigned long long cpuSeconds = 0;
  unsigned long long addressSpaceBytes = 0;
  // A failed step of these never starts the program: the child ends as when execve fails, with a
  // line naming the step.
};

// The plugin way: clone(CLONE_VM | CLONE_VFORK), returning once the child has called execve or
// ended. Every signal is blocked in the calling thread meanwhile, so that no handler of the agent
// can run in the child; the caller's mask is the child's from execve on. Returns the child's pid,
// or -1 with errno set.
pid_t spawnChild(const ChildSetup& setup);
// The same child steps after a plain fork() (the alerting program).
pid_t forkChild(const ChildSetup& setup);

// waitpid, retried on EINTR; with `usage`, wait4 and the ended child's resource usage there.
pid_t waitRetry(pid_t pid, int* status, int options, rusage* usage = nullptr);

// A point in time some whole seconds from now, or none at all (0 seconds).
class Deadline {
 public:
  explicit Deadline(int seconds)
      : set_(seconds > 0), at_(std::chrono::steady_clock::now() + std::chrono::seconds(seconds)) {}
  bool set() const noexcept { return set_; }
  // Milliseconds left, rounded up, 0 once passed; only for a set deadline.
  int millisecondsLeft() const;

 private:
  bool set_;
  std::chrono::steady_clock::time_point at_;
};

// poll() for input on `fd` until the deadline: 1 readable (or at its end), 0 deadline passed,
// -1 with errno on failure.
int waitReadable(int fd, const Deadline& deadline);

// A child of ours until it has been reaped. One that is only stopped or continued when we stop
// waiting (or whose output could not be read) would otherwise stay in the process table for good,
// and become a zombie nobody reaps once it ends: it is killed and reaped on the way out.
class ChildProcess {
 public:
  // -1 (a failed start) is accepted: wait() then takes any child, and nothing is ever killed.
  explicit ChildProcess(pid_t pid) noexcept : pid_(pid) {}
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  // waitpid(pid, WUNTRACED | WCONTINUED); -1 with errno on failure. With a set deadline, 0 when
  // the child has not ended, stopped or continued by then. With `usage`, the resource usage of a
  // child that ended (its CPU time, with that of the children it waited for).
  pid_t wait(int* status, const Deadline& deadline = Deadline(0), rusage* usage = nullptr) noexcept;
  pid_t pid() const noexcept { return pid_; }

 private:
  pid_t pid_;
};
