// One monitored service: the plugin to run with its arguments and, after execute(), its captured
// output and return code. Filled by one thread, handed over through the execute queue and then
// used by the one worker that runs it, so it needs no lock. Held through std::shared_ptr.
#pragma once

#include <sys/time.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "src/common/messageException.h"
#include "src/common/uniqueFd.h"

class Deadline;
class PluginConfinement;
struct rusage;

// Failure of a plugin or alerting-program run; the message names the service.
class serviceException : public MessageException {
 public:
  using MessageException::MessageException;
};

// What the plugin rule that allowed an order sets for its run (PluginRules::Verdict), and the
// confinement of every run when there are no rules; 0 and null mean none. A plugin ended by one of
// these limits returns 3 with a text naming the limit where the agent can tell, and is not run
// again: it would only reach the limit again.
struct RuleLimits {
  // RLIMIT_CPU: SIGXCPU after this many seconds of CPU time, SIGKILL a second later.
  int cpuSeconds = 0;
  // RLIMIT_AS, in MiB: an allocation beyond it fails.
  int memoryMib = 0;
  // The Landlock ruleset the plugin runs under (NIVO/confine_plugins); null: not confined.
  std::shared_ptr<const PluginConfinement> confinement;
};

// Bounds of one plugin run beyond the default behaviour; 0 and false mean none.
struct RunLimits {
  // Seconds after which the plugin's process group gets SIGTERM, and SIGKILL a second later; the
  // run then returns 3 with a text saying so.
  int timeoutSeconds = 0;
  // Bytes of output kept; the rest is read and dropped, and a line says it was.
  std::size_t maxOutput = 0;
  // A failure of the agent itself (pipe, start, read, wait) leaves return code 3 and its text as
  // the output, so that it can never be reported as OK.
  bool unknownOnFailure = false;
};

// How the last run of execute() ended.
enum class RunOutcome {
  NotRun,
  Completed,     // the plugin ran and ended: its return code tells the state
  TimedOut,      // ended by the time limit
  LimitReached,  // ended by its rule's cpu= or memory= limit, as far as the agent can tell
  Failed,        // the agent could not start, read or wait for it
};

// Splits a parameter text into the arguments of a plugin and appends them to `tokens`: blanks
// separate, ' and " quote (either one closes what either opened), there is no escape character,
// and empty tokens are dropped. The one splitting of the agent: an order's parameter text and
// anything that must see the same arguments (the plugin rules) go through here.
void appendParameterTokens(const std::string& text, std::vector<std::string>& tokens);

class service {
 public:
  service();
  // Copies every field through its getter; the execution times pass through int on purpose.
  service(const service& other);
  service& operator=(const service&) = delete;
  virtual ~service();

  void SetService_id(unsigned long long id);
  void Setname(std::string name);
  void Setpath(std::string path);
  // Stores the raw text and splits it with appendParameterTokens.
  void Setparameter(std::string parameter);
  // Same splitting; appends to the alerting list and keeps no raw text.
  void SetAlertingParameter(std::string parameter);
  // Stores the interval and derives the cost 300000 / interval (0 for an interval of 0).
  void Setinterval_exec_time(int interval);
  void SetReturnCode(int code);
  void SetRunLimits(const RunLimits& limits);
  // The allowing rule's limits and the plugin's confinement; left alone by SetRunLimits.
  void SetRuleLimits(const RuleLimits& limits);
  // Starts the plugin from this open file (execveat) rather than by its path, so that the file
  // that was checked is the file that runs; shared, as the run may outlive the caller's copy.
  // Null, the default: by its path.
  void SetExecutable(std::shared_ptr<const UniqueFd> executable);

  std::int64_t GetDevice_id() const;
  std::int32_t GetPlugin_id() const;
  unsigned long long GetService_id() const;
  std::string GetService_idStr() const;
  int GetReturnCode() const;
  int getLastValidateReturnCode() const;
  std::string Getname() const;
  std::string Getparameter() const;
  std::string GetOID() const;
  std::vector<std::string> getVectorParam() const;
  // The same two without a copy, valid while the record lives and its parameter is not set again.
  const std::string& parameterText() const { return parameter_; }
  const std::vector<std::string>& parameterList() const { return vectorParam_; }
  std::vector<std::string> getVectorAlertingParam() const;
  std::string Getpath() const;
  std::string GetAlertingSoftware() const;
  bool GetAlertingOK() const;
  bool GetAlertingUnknown() const;
  bool GetAlertingWarning() const;
  bool GetAlertingCritical() const;
  int GetExecTimeSec() const;
  int GetExecTimeuSec() const;
  int Getlast_exec_time() const;
  int Getinterval_exec_time() const;
  std::string GetStdout() const;
  int GetMaintenanceMode() const;
  timeval GetMaintenanceStart() const;
  timeval GetMaintenanceEnd() const;
  int GetMaintenancePlannedID() const;
  float GetCost() const;
  RunOutcome GetRunOutcome() const;
  // From the start of the last run of execute() to its end.
  std::chrono::nanoseconds GetRunDuration() const;
  std::shared_ptr<const UniqueFd> GetExecutable() const;

  // Runs the plugin once (fork/execve, empty environment, output on a pipe) and returns the code
  // 0..5; throws serviceException with the service named in the message on failure.
  int execute();
  // Runs the alerting program with "$ERROR" items replaced by `error`; 0 once it was waited for.
  int executeAlertingSoftware(std::string error);

  // Ordered by execution time, seconds then microseconds.
  bool operator<(const service& other) const;
  bool operator>(const service& other) const;

 private:
  // Lets the tests set the fields that the agent never sets (execution times, alerting program).
  friend class ServiceTestPeer;

  // Output of the plugin on `fd` to its end, or until the time limit has ended the plugin's group
  // (then `timedOut`); NUL-cut per chunk and bounded by the output limit.
  std::string readOutput(int fd, pid_t group, const Deadline& deadline, bool& timedOut);
  // Throws the failure of a system call; with unknownOnFailure the record says it as UNKNOWN.
  [[noreturn]] void fail(const char* prefix, int error);
  // The answer of a plugin that the rule's cpu= or memory= limit ended by a signal, as far as its
  // wait status and resource usage tell; empty when no limit explains its end.
  std::string limitEnding(int status, const rusage& usage) const;

  // "<name>\npath:<path> <parameter>", the part every error text carries.
  std::string description() const;
  // `prefix` + description() + strerror(error): the text of a failed system call.
  std::string failureText(const char* prefix, int error) const;

  std::int64_t device_id_ = 0;
  std::int32_t plugin_id_ = 0;
  unsigned long long service_id_ = 0;
  std::string service_idStr_;
  std::int32_t returnCode_ = 0;
  std::int32_t lastValidateReturnCode_ = 0;
  std::string name_;
  std::string parameter_;
  std::string OID_;
  std::vector<std::string> vectorParam_;
  std::vector<std::string> vectorAlertingParam_;
  std::string path_;
  std::string alertingSoftware_;
  bool alertingOK_ = false;
  bool alertingUnknown_ = false;
  bool alertingWarning_ = false;
  bool alertingCritical_ = false;
  std::int64_t execTimeSec_ = 0;
  std::int64_t execTimeuSec_ = 0;
  std::int32_t last_exec_time_ = 0;
  std::int32_t interval_exec_time_ = 0;
  std::string stdout_;
  std::int32_t maintenanceMode_ = 0;
  timeval maintenanceStart_{};
  timeval maintenanceEnd_{};
  std::int32_t maintenancePlannedID_ = 0;
  float cost_ = 1.0f;
  RunLimits limits_;
  RuleLimits ruleLimits_;
  RunOutcome runOutcome_ = RunOutcome::NotRun;
  std::chrono::nanoseconds runDuration_{0};
  std::shared_ptr<const UniqueFd> executable_;
};
