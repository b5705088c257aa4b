#include "src/service/service.h"

#include "src/common/convertTo.h"
#include "src/common/uniqueFd.h"
#include "src/service/childProcess.h"
#include "src/service/pluginConfinement.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/tokenizer.hpp>
#include <cerrno>
#include <cstring>
#include <utility>

namespace {

char* const kEmptyEnvironment[] = {nullptr};

// Between SIGTERM and SIGKILL when a plugin outlives its time limit.
constexpr int kGraceSeconds = 1;

// The length of `text` without a last UTF-8 sequence that a cut left incomplete.
std::size_t utf8Boundary(const std::string& text) {
  std::size_t lead = text.size();
  // A sequence is at most four bytes long: back over up to three continuation bytes (10xxxxxx).
  while (lead > 0 && text.size() - lead < 4 &&
         (static_cast<unsigned char>(text[lead - 1]) & 0xC0) == 0x80)
    --lead;
  if (lead == 0) return text.size();
  const unsigned char first = static_cast<unsigned char>(text[lead - 1]);
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : first >= 0xC0 ? 2 : 1;
  return lead - 1 + length > text.size() ? lead - 1 : text.size();
}

}  // namespace

// No escape character: a backslash is an ordinary character, and the tokenizer never throws. The
// separator is driven directly rather than through boost::tokenizer's iterator, whose tokens can
// only be copied: each token is moved into the list, so a long text is held once, not twice.
void appendParameterTokens(const std::string& text, std::vector<std::string>& tokens) {
  boost::escaped_list_separator<char> separator("", " ", "\"'");
  auto next = text.begin();
  for (std::string token; separator(next, text.end(), token);) {
    if (!token.empty()) tokens.push_back(std::move(token));
  }
}

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
  limits_ = other.limits_;
  ruleLimits_ = other.ruleLimits_;
  runOutcome_ = other.runOutcome_;
  runDuration_ = other.runDuration_;
  executable_ = other.GetExecutable();
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
  appendParameterTokens(parameter_, vectorParam_);
}

void service::SetAlertingParameter(std::string parameter) {
  appendParameterTokens(parameter, vectorAlertingParam_);
}

void service::Setinterval_exec_time(int interval) {
  interval_exec_time_ = interval;
  // An interval of 0 costs nothing rather than trapping. The dividend is positive, so no other
  // interval can overflow the quotient.
  cost_ = interval == 0 ? 0.0f : static_cast<float>(300000 / interval);
}

void service::SetReturnCode(int code) { returnCode_ = code; }

void service::SetRunLimits(const RunLimits& limits) { limits_ = limits; }

void service::SetRuleLimits(const RuleLimits& limits) { ruleLimits_ = limits; }

void service::SetExecutable(std::shared_ptr<const UniqueFd> executable) {
  executable_ = std::move(executable);
}

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
RunOutcome service::GetRunOutcome() const { return runOutcome_; }
std::chrono::nanoseconds service::GetRunDuration() const { return runDuration_; }
std::shared_ptr<const UniqueFd> service::GetExecutable() const { return executable_; }

std::string service::description() const { return name_ + "\npath:" + path_ + " " + parameter_; }

std::string service::failureText(const char* prefix, int error) const {
  return prefix + description() + std::strerror(error);
}

void service::fail(const char* prefix, int error) {
  runOutcome_ = RunOutcome::Failed;
  const std::string text = failureText(prefix, error);
  if (limits_.unknownOnFailure) {
    returnCode_ = 3;
    stdout_ = text;
  }
  throw serviceException(text);
}

std::string service::readOutput(int fd, pid_t group, const Deadline& deadline, bool& timedOut) {
  std::string output;
  bool truncated = false;
  const std::size_t keep = limits_.maxOutput > 0 ? limits_.maxOutput : std::string::npos;
  Deadline until = deadline;
  char buffer[1024];
  for (;;) {
    if (until.set()) {
      const int ready = waitReadable(fd, until);
      if (ready == -1) fail("Error read buffer: ", errno);
      if (ready == 0) {
        if (timedOut) {
          // Whatever still holds the pipe has outlived SIGTERM: the group is killed, and the
          // output of anything that left the group is not waited for.
          ::kill(-group, SIGKILL);
          break;
        }
        timedOut = true;
        ::kill(-group, SIGTERM);
        until = Deadline(kGraceSeconds);
        continue;
      }
    }
    const ssize_t received = ::read(fd, buffer, sizeof buffer);
    if (received == 0) break;
    if (received == -1) {
      if (errno == EINTR) continue;
      fail("Error read buffer: ", errno);
    }
    // Each chunk is taken as text: a NUL ends it, and the rest of that chunk is dropped. Beyond
    // the output limit the plugin is still read to its end, so that it never blocks on the pipe.
    const std::size_t text = ::strnlen(buffer, static_cast<size_t>(received));
    const std::size_t room = keep - std::min(keep, output.size());
    if (text > room) truncated = true;
    output.append(buffer, std::min(text, room));
  }
  if (truncated) {
    output.resize(utf8Boundary(output));
    if (!output.empty() && output.back() != '\n') output += '\n';
    output += "[output truncated after " + std::to_string(limits_.maxOutput) + " bytes]\n";
  }
  return output;
}

namespace {

// Stores the time from its construction to its end, however the run ends (a failure throws).
class RunTimer {
 public:
  explicit RunTimer(std::chrono::nanoseconds& duration)
      : duration_(duration), start_(std::chrono::steady_clock::now()) {}
  RunTimer(const RunTimer&) = delete;
  RunTimer& operator=(const RunTimer&) = delete;
  ~RunTimer() { duration_ = std::chrono::steady_clock::now() - start_; }

 private:
  std::chrono::nanoseconds& duration_;
  const std::chrono::steady_clock::time_point start_;
};

}  // namespace

int service::execute() {
  const RunTimer timer(runDuration_);
  runOutcome_ = RunOutcome::Completed;  // unless it times out or fails below
  stdout_.clear();

  int ends[2];
  // Close-on-exec: a plugin that another worker starts meanwhile must not hold this pipe open, or
  // this read loop would wait for that plugin too.
  if (::pipe2(ends, O_CLOEXEC) == -1) fail("Error open pipe ", errno);
  UniqueFd readEnd(ends[0]);
  UniqueFd writeEnd(ends[1]);

  const ArgumentVector argv(path_, vectorParam_);
  ChildSetup setup;
  setup.path = path_.c_str();
  setup.argv = argv.get();
  setup.envp = kEmptyEnvironment;  // plugins run with no environment at all
  setup.outputFd = writeEnd.get();
  setup.unusedFd = readEnd.get();
  setup.execFailurePrefix = "DAEMON: plugin is not executable ";
  setup.ownProcessGroup = true;
  setup.executableFd = executable_ ? executable_->get() : -1;
  const RuleLimits& rule = ruleLimits_;
  setup.landlockRuleset = rule.confinement ? rule.confinement->rulesetFd() : -1;
  setup.cpuSeconds = static_cast<unsigned long long>(rule.cpuSeconds);
  setup.addressSpaceBytes = static_cast<unsigned long long>(rule.memoryMib) << 20;
  int startError = 0;
  setup.startError = &startError;
  const pid_t pid = spawnChild(setup);
  if (pid == -1) fail("Error create fork ", errno);
  // Answered as ever (the child's line and status 2), but counted as a start that failed.
  if (startError != 0) runOutcome_ = RunOutcome::Failed;
  const Deadline deadline(limits_.timeoutSeconds);
  ChildProcess child(pid);
  writeEnd.reset();  // ours would keep the read loop from ever seeing the end of the output

  bool timedOut = false;
  std::string output = readOutput(readEnd.get(), pid, deadline, timedOut);
  stdout_ = output;

  int status = 0;
  rusage usage{};
  pid_t waited = 0;
  if (!timedOut) {
    waited = child.wait(&status, deadline, &usage);
    if (waited == 0) {  // its output ended, the plugin ran on past its limit
      timedOut = true;
      ::kill(-pid, SIGTERM);
    }
  }
  if (timedOut) {
    if (waited == 0 && child.wait(&status, Deadline(kGraceSeconds)) == 0) ::kill(-pid, SIGKILL);
    // No retry: a plugin that hangs would hang again. The child's owner reaps it on the way out.
    runOutcome_ = RunOutcome::TimedOut;
    returnCode_ = 3;
    stdout_ =
        "UNKNOWN: plugin timed out after " + std::to_string(limits_.timeoutSeconds) + " seconds\n";
    return 3;
  }
  if (waited == -1) fail("Error execute ", errno);
  readEnd.reset();

  if ((status & 0x7f) != 0) {  // ended by a signal, stopped or continued
    returnCode_ = 3;
    const std::string limit = limitEnding(status, usage);
    if (!limit.empty()) {
      runOutcome_ = RunOutcome::LimitReached;
      stdout_ = limit;
      return 3;
    }
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

std::string service::limitEnding(int status, const rusage& usage) const {
  if (!WIFSIGNALED(status)) return "";
  const int signal = WTERMSIG(status);
  const RuleLimits& rule = ruleLimits_;
  if (rule.cpuSeconds > 0) {
    // SIGXCPU at the limit; SIGKILL a second later, should the plugin catch or ignore SIGXCPU.
    const long long usedMicroseconds = (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000000LL +
                                       usage.ru_utime.tv_usec + usage.ru_stime.tv_usec;
    if (signal == SIGXCPU || (signal == SIGKILL && usedMicroseconds >= rule.cpuSeconds * 1000000LL))
      return "UNKNOWN: plugin ended by its CPU time limit (cpu=" + std::to_string(rule.cpuSeconds) +
             " seconds)\n";
  }
  // What an allocation refused by RLIMIT_AS ends a program with: a stack that cannot grow, an
  // abort() on a failed allocation. The agent cannot be sure, so it names the limit, not a cause.
  if (rule.memoryMib > 0 && (signal == SIGSEGV || signal == SIGBUS || signal == SIGABRT))
    return "UNKNOWN: plugin ended by signal SIG" + std::string(::sigabbrev_np(signal)) +
           " under its address-space limit (memory=" + std::to_string(rule.memoryMib) + " MiB)\n";
  return "";
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
  const pid_t pid = forkChild(setup);

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
