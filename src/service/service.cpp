#include "service/service.h"

#include "common/convertTo.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <boost/tokenizer.hpp>
#include <cerrno>
#include <cstring>
#include <utility>

namespace {

// Splits on blanks with ' and " as (interchangeable) quotes and no escape character, so a
// backslash is an ordinary character and the tokenizer never throws. Empty tokens are dropped.
void appendTokens(const std::string& text, std::vector<std::string>& tokens) {
  const boost::escaped_list_separator<char> separator("", " ", "\"'");
  for (const std::string& token :
       boost::tokenizer<boost::escaped_list_separator<char>>(text, separator)) {
    if (!token.empty()) tokens.push_back(token);
  }
}

// strerror() may go through the locale's message catalogue, which allocates and takes locks, so
// the forked child of this multithreaded agent must not call it. The texts are taken once, in the
// parent, before the first fork, and the child only indexes them. The agent never changes its
// locale, so they read exactly as strerror() would.
class ErrnoTexts {
 public:
  static const ErrnoTexts& get() {
    // Never destroyed: a worker may still be starting a plugin while the process exits.
    static const ErrnoTexts* const texts = new ErrnoTexts;
    return *texts;
  }

  // Async-signal-safe.
  const char* text(int error) const noexcept {
    return error >= 0 && error < kCount ? texts_[error].c_str() : "Unknown error";
  }

 private:
  // Linux's errno values end at 133 (EHWPOISON).
  static constexpr int kCount = 256;

  ErrnoTexts() {
    for (int error = 0; error < kCount; ++error) texts_[error] = std::strerror(error);
  }

  std::array<std::string, kCount> texts_;
};

// Owns one descriptor. close() is neither retried on EINTR (Linux has released the descriptor by
// then, and a retry could close one another thread has just opened) nor checked: a pipe end has
// nothing left to flush, so a failure would tell us nothing we could act on.
class Fd {
 public:
  explicit Fd(int fd) noexcept : fd_(fd) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { reset(); }

  int get() const noexcept { return fd_; }
  void reset() noexcept {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

// The argv of execve: the program path, the items, a null pointer. Built whole before fork(),
// because the child may not allocate.
class ArgumentVector {
 public:
  ArgumentVector(const std::string& program, const std::vector<std::string>& items) {
    strings_.reserve(items.size() + 1);
    strings_.push_back(program);
    strings_.insert(strings_.end(), items.begin(), items.end());
    pointers_.reserve(strings_.size() + 1);
    for (std::string& s : strings_) pointers_.push_back(s.data());
    pointers_.push_back(nullptr);
  }
  ArgumentVector(const ArgumentVector&) = delete;
  ArgumentVector& operator=(const ArgumentVector&) = delete;

  char* const* get() const noexcept { return pointers_.data(); }

 private:
  std::vector<std::string> strings_;
  std::vector<char*> pointers_;
};

// What the child needs, all prepared by the parent.
struct ChildSetup {
  const char* path = nullptr;
  char* const* argv = nullptr;
  char* const* envp = nullptr;  // null: the agent's own environment, as execv passes it
  int outputFd = -1;            // becomes descriptor 1; -1 keeps the agent's standard output
  int unusedFd = -1;  // the parent's end of the pipe, closed in the child; -1 when there is none
  const char* execFailurePrefix = "";  // starts the line written on descriptor 1 if execve fails
  long maxFd = 0;                      // bound of the close loop when close_range is missing
  const sigset_t* mask = nullptr;      // the forking thread's mask, given back before execve
  const ErrnoTexts* errnoTexts = nullptr;
};

// Everything the child does between fork() and execve(). The agent is multithreaded, so only
// async-signal-safe calls are made here: no allocation, no stdio, no strerror(), no exit().
[[noreturn]] void runChild(const ChildSetup& setup) noexcept {
  const auto writeText = [](int fd, const char* text) {
    size_t left = std::strlen(text);
    while (left > 0) {
      const ssize_t written = ::write(fd, text, left);
      if (written == -1) {
        if (errno == EINTR) continue;
        return;  // nobody is left to tell
      }
      text += written;
      left -= static_cast<size_t>(written);
    }
  };

  if (setup.unusedFd >= 0) ::close(setup.unusedFd);
  if (setup.outputFd >= 0) {
    int redirected;
    if (setup.outputFd == STDOUT_FILENO) {
      // The agent had no descriptor 1, so the pipe got it; dup2() onto itself would keep the
      // close-on-exec flag and the plugin would lose its output: clear the flag instead.
      redirected = ::fcntl(STDOUT_FILENO, F_SETFD, 0);
    } else {
      while ((redirected = ::dup2(setup.outputFd, STDOUT_FILENO)) == -1 && errno == EINTR) {
      }
    }
    if (redirected == -1) {
      const int error = errno;
      writeText(STDERR_FILENO, "EXEC fils: erreur de redirection de flux (dup2): ");
      writeText(STDERR_FILENO, setup.errnoTexts->text(error));
      writeText(STDERR_FILENO, "\n");
      ::close(setup.outputFd);
      ::_exit(2);
    }
    if (setup.outputFd != STDOUT_FILENO) ::close(setup.outputFd);
  }

  // The link's socket and the log file carry no close-on-exec flag, and another worker may have
  // a pipe open at this moment: a plugin gets descriptors 0 to 2 and nothing else. Any failure of
  // close_range (ENOSYS on an old kernel) falls back to closing one by one.
  if (::close_range(3, ~0U, 0) == -1) {
    for (long fd = 3; fd < setup.maxFd; ++fd) ::close(static_cast<int>(fd));
  }

  // All signals are still blocked here. A handler of the agent (SIGTERM's) must never run in the
  // child, and an ignored signal would stay ignored across execve: every disposition goes back
  // to the default before the worker's mask is given back. sigaction refuses SIGKILL, SIGSTOP and
  // the C library's own signals with EINVAL, which is why its result is not looked at.
  struct sigaction defaultAction;
  std::memset(&defaultAction, 0, sizeof defaultAction);
  defaultAction.sa_handler = SIG_DFL;
  ::sigemptyset(&defaultAction.sa_mask);
  for (int signal = 1; signal < NSIG; ++signal) {
    if (signal != SIGKILL && signal != SIGSTOP) ::sigaction(signal, &defaultAction, nullptr);
  }
  ::sigprocmask(SIG_SETMASK, setup.mask, nullptr);

  ::execve(setup.path, setup.argv, setup.envp != nullptr ? setup.envp : environ);
  const int error = errno;
  writeText(STDOUT_FILENO, setup.execFailurePrefix);
  writeText(STDOUT_FILENO, setup.errnoTexts->text(error));
  writeText(STDOUT_FILENO, "\n");
  ::_exit(2);
}

// fork() with every signal blocked in the forking thread, so that no handler of the agent can run
// in the child before runChild() has reset them; the parent gets its mask back right after.
// Returns the child's pid, or -1 with errno set.
pid_t spawn(ChildSetup setup) {
  setup.errnoTexts = &ErrnoTexts::get();  // built here, never in the child
  setup.maxFd = ::sysconf(_SC_OPEN_MAX);
  sigset_t all;
  sigset_t previous;
  ::sigfillset(&all);
  const int blocked = ::pthread_sigmask(SIG_SETMASK, &all, &previous);
  if (blocked != 0) {
    errno = blocked;
    return -1;
  }
  setup.mask = &previous;
  const pid_t pid = ::fork();
  if (pid == 0) runChild(setup);
  const int forkError = errno;
  // Cannot fail: the same call with a valid mask has just succeeded.
  ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  errno = forkError;
  return pid;
}

pid_t waitRetry(pid_t pid, int* status, int options) {
  pid_t result;
  while ((result = ::waitpid(pid, status, options)) == -1 && errno == EINTR) {
  }
  return result;
}

// A child of ours until it has been reaped. One that is only stopped or continued when we stop
// waiting (or whose output could not be read) would otherwise stay in the process table for good,
// and become a zombie nobody reaps once it ends: it is killed and reaped on the way out.
class ChildProcess {
 public:
  // -1 (a failed fork) is accepted: wait() then takes any child, and nothing is ever killed.
  explicit ChildProcess(pid_t pid) noexcept : pid_(pid) {}
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    int ignored;
    waitRetry(pid_, &ignored, 0);
  }

  // waitpid(pid, WUNTRACED | WCONTINUED); -1 with errno on failure.
  pid_t wait(int* status) noexcept {
    const pid_t result = waitRetry(pid_, status, WUNTRACED | WCONTINUED);
    // After a failure the pid may already be reaped by someone else and reused: never kill it.
    if (result == -1 || WIFEXITED(*status) || WIFSIGNALED(*status)) pid_ = 0;
    return result;
  }

 private:
  pid_t pid_;
};

char* const kEmptyEnvironment[] = {nullptr};

}  // namespace

service::service() = default;

service::service(const service& other) {
  device_id_ = other.GetDevice_id();
  plugin_id_ = other.GetPlugin_id();
  service_id_ = other.GetService_id();
  name_ = other.Getname();
  parameter_ = other.Getparameter();
  vectorParam_ = other.getVectorParam();
  path_ = other.Getpath();
  // The getters return int: the copy keeps the low 32 bits, sign-extended, on purpose.
  execTimeSec_ = other.GetExecTimeSec();
  execTimeuSec_ = other.GetExecTimeuSec();
  last_exec_time_ = other.Getlast_exec_time();
  interval_exec_time_ = other.Getinterval_exec_time();
  alertingOK_ = other.GetAlertingOK();
  alertingUnknown_ = other.GetAlertingUnknown();
  alertingWarning_ = other.GetAlertingWarning();
  alertingCritical_ = other.GetAlertingCritical();
  alertingSoftware_ = other.GetAlertingSoftware();
  vectorAlertingParam_ = other.getVectorAlertingParam();
  returnCode_ = other.GetReturnCode();
  OID_ = other.GetOID();
  maintenanceMode_ = other.GetMaintenanceMode();
  maintenanceStart_ = other.GetMaintenanceStart();
  maintenanceEnd_ = other.GetMaintenanceEnd();
  maintenancePlannedID_ = other.GetMaintenancePlannedID();
  cost_ = other.GetCost();
  lastValidateReturnCode_ = other.getLastValidateReturnCode();
  service_idStr_ = other.GetService_idStr();
  stdout_ = other.GetStdout();
}

service::~service() = default;

void service::SetService_id(unsigned long long id) {
  service_id_ = id;
  service_idStr_ = std::to_string(id);
}

void service::Setname(std::string name) { name_ = std::move(name); }

void service::Setpath(std::string path) { path_ = std::move(path); }

void service::Setparameter(std::string parameter) {
  parameter_ = std::move(parameter);
  vectorParam_.clear();
  appendTokens(parameter_, vectorParam_);
}

void service::SetAlertingParameter(std::string parameter) {
  appendTokens(parameter, vectorAlertingParam_);
}

void service::Setinterval_exec_time(int interval) {
  interval_exec_time_ = interval;
  // An interval of 0 costs nothing rather than trapping. The dividend is positive, so no other
  // interval can overflow the quotient.
  cost_ = interval == 0 ? 0.0f : static_cast<float>(300000 / interval);
}

void service::SetReturnCode(int code) { returnCode_ = code; }

std::int64_t service::GetDevice_id() const { return device_id_; }
std::int32_t service::GetPlugin_id() const { return plugin_id_; }
unsigned long long service::GetService_id() const { return service_id_; }
std::string service::GetService_idStr() const { return service_idStr_; }
int service::GetReturnCode() const { return returnCode_; }
int service::getLastValidateReturnCode() const { return lastValidateReturnCode_; }
std::string service::Getname() const { return name_; }
std::string service::Getparameter() const { return parameter_; }
std::string service::GetOID() const { return OID_; }
std::vector<std::string> service::getVectorParam() const { return vectorParam_; }
std::vector<std::string> service::getVectorAlertingParam() const { return vectorAlertingParam_; }
std::string service::Getpath() const { return path_; }
std::string service::GetAlertingSoftware() const { return alertingSoftware_; }
bool service::GetAlertingOK() const { return alertingOK_; }
bool service::GetAlertingUnknown() const { return alertingUnknown_; }
bool service::GetAlertingWarning() const { return alertingWarning_; }
bool service::GetAlertingCritical() const { return alertingCritical_; }
int service::GetExecTimeSec() const { return static_cast<int>(execTimeSec_); }
int service::GetExecTimeuSec() const { return static_cast<int>(execTimeuSec_); }
int service::Getlast_exec_time() const { return last_exec_time_; }
int service::Getinterval_exec_time() const { return interval_exec_time_; }
std::string service::GetStdout() const { return stdout_; }
int service::GetMaintenanceMode() const { return maintenanceMode_; }
timeval service::GetMaintenanceStart() const { return maintenanceStart_; }
timeval service::GetMaintenanceEnd() const { return maintenanceEnd_; }
int service::GetMaintenancePlannedID() const { return maintenancePlannedID_; }
float service::GetCost() const { return cost_; }

std::string service::description() const { return name_ + "\npath:" + path_ + " " + parameter_; }

std::string service::failureText(const char* prefix, int error) const {
  return prefix + description() + std::strerror(error);
}

int service::execute() {
  stdout_.clear();
  std::string output;

  int ends[2];
  // Close-on-exec: a plugin that another worker starts meanwhile must not hold this pipe open, or
  // this read loop would wait for that plugin too.
  if (::pipe2(ends, O_CLOEXEC) == -1)
    throw serviceException(failureText("Error open pipe ", errno));
  Fd readEnd(ends[0]);
  Fd writeEnd(ends[1]);

  const ArgumentVector argv(path_, vectorParam_);
  ChildSetup setup;
  setup.path = path_.c_str();
  setup.argv = argv.get();
  setup.envp = kEmptyEnvironment;  // plugins run with no environment at all
  setup.outputFd = writeEnd.get();
  setup.unusedFd = readEnd.get();
  setup.execFailurePrefix = "DAEMON: plugin is not executable ";
  const pid_t pid = spawn(setup);
  if (pid == -1) throw serviceException(failureText("Error create fork ", errno));
  ChildProcess child(pid);
  writeEnd.reset();  // ours would keep the read loop from ever seeing the end of the output

  char buffer[1024];
  for (;;) {
    const ssize_t received = ::read(readEnd.get(), buffer, sizeof buffer);
    if (received == 0) break;
    if (received == -1) {
      if (errno == EINTR) continue;
      throw serviceException(failureText("Error read buffer: ", errno));
    }
    // Each chunk is taken as text: a NUL ends it, and the rest of that chunk is dropped.
    output.append(buffer, ::strnlen(buffer, static_cast<size_t>(received)));
  }
  stdout_ = output;

  int status = 0;
  if (child.wait(&status) == -1) throw serviceException(failureText("Error execute ", errno));
  readEnd.reset();

  if ((status & 0x7f) != 0) {  // ended by a signal, stopped or continued
    returnCode_ = 3;
    stdout_ = "Error: orva can't execute " + path_;
    throw serviceException("Error: orva can't execute " + description() + output);
  }
  int code = (status >> 8) & 0xff;
  if (code == 255) {  // the plugins' way of saying that the host could not be reached
    code = 3;
    stdout_ = "UNKNOWN: OrvaDaemon could not connect to host";
  }
  if (code < 0 || code > 5) {
    stdout_ = "Error execute: Bad return code\n" + description() + " " + output;
    code = 3;
  }
  output = toValidUtf8(output);
  returnCode_ = code;
  // Any output replaces the fixed texts above; they only survive when there was none.
  if (output.empty() || output == "''") {
    returnCode_ = 3;
    throw serviceException("DAEMON: the plugin does not return anything on the stdout");
  }
  stdout_ = std::move(output);
  return code;
}

int service::executeAlertingSoftware(std::string error) {
  std::vector<std::string> items;
  items.reserve(vectorAlertingParam_.size());
  for (const std::string& item : vectorAlertingParam_) {
    items.push_back(item.find("$ERROR") != std::string::npos ? error : item);
  }
  const ArgumentVector argv(alertingSoftware_, items);
  ChildSetup setup;
  setup.path = alertingSoftware_.c_str();
  setup.argv = argv.get();
  // No envp: the program inherits the agent's environment, and its standard output and error
  // too. A failed execve prints the bare error text there and ends the child with status 2 through
  // _exit rather than exit(): exit() would flush stdio buffers copied from the agent (printing
  // the agent's pending output twice) and run atexit handlers whose locks another thread may have
  // held at fork time. What can be seen from outside, the text and the status, stays the same.
  const pid_t pid = spawn(setup);

  // A failed fork (-1) goes on to the wait like the parent's side and takes any child of the
  // agent: kept as it stands.
  ChildProcess child(pid);
  int status = 0;
  if (child.wait(&status) == -1) {
    const int waitError = errno;
    throw serviceException("Error execute ALERTE" + alertingSoftware_ + " " + parameter_ +
                           std::strerror(waitError));
  }
  return 0;
}

bool service::operator<(const service& other) const {
  if (execTimeSec_ < other.GetExecTimeSec()) return true;
  if (other.GetExecTimeSec() < execTimeSec_) return false;
  return execTimeuSec_ < other.GetExecTimeuSec();
}

bool service::operator>(const service& other) const {
  if (execTimeSec_ > other.GetExecTimeSec()) return true;
  if (other.GetExecTimeSec() > execTimeSec_) return false;
  return execTimeuSec_ > other.GetExecTimeuSec();
}
