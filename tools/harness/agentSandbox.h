// Runs one real qavel-client in a sandbox of its own, for the end-to-end tests and the demo.
// The sandbox is a fresh directory (never under /tmp) holding the agent's configuration, serial
// number, plugin list, plugins, log and status file; scripts/sandbox-run starts the agent in a
// private mount namespace where /etc/nivo is <dir>/etc and /tmp/nivo is <dir>/tmp, so its fixed
// paths point into the sandbox and the host's own files are never touched. The rest of the host's
// tree stays visible, so the agent and its plugins may live anywhere, /tmp included. Needs root.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class agentSandbox {
 public:
  struct Paths {
    std::string agent;       // the qavel-client binary
    std::string sandboxRun;  // scripts/sandbox-run
  };

  // Creates the directory under `parent` with a working default configuration: log and status
  // file in the sandbox, plugin directory <dir>/plugins, the given server URL, the real ip program,
  // two monitor workers, the serial number "SN-TEST-0001" and an empty plugin list.
  agentSandbox(Paths paths, const std::string& serverUrl, const std::string& parent = "/var/tmp");
  // Kills an agent still running and every plugin it started, running or left behind, each with
  // its process group (found by the sandbox's overlays in its mounts, so after the agent's end
  // too), and removes the directory.
  ~agentSandbox();
  agentSandbox(const agentSandbox&) = delete;
  agentSandbox& operator=(const agentSandbox&) = delete;

  const std::string& dir() const { return dir_; }
  // <dir>/<relative>
  std::string path(const std::string& relative) const;

  // Configuration keys; the file (<dir>/etc/qavel.conf) is written by start() and writeConfig().
  void setKey(const std::string& section, const std::string& key, const std::string& value);
  void removeKey(const std::string& section, const std::string& key);
  // Writes the configuration file now: for a running agent to read again.
  void writeConfig();

  // Writes <dir>/<relative> (directories created); mode as for chmod.
  void writeFile(const std::string& relative, const std::string& content, mode_t mode = 0644);
  void removeFile(const std::string& relative);
  // Copies an executable into <dir>/plugins under `name` and puts the name on the plugin list.
  void addPlugin(const std::string& name, const std::string& sourcePath);
  // The plugin list (<dir>/etc/plugins.list), one name a line.
  void setPluginList(const std::vector<std::string>& names);

  // A variable of the agent's environment, which is otherwise this process's own.
  void setEnvironment(const std::string& name, const std::string& value);

  // Writes the configuration and starts the agent with `arguments` (default: -D -f
  // /etc/nivo/qavel.conf) in a process group of its own; its standard output goes to
  // <dir>/agent.out and its standard error to <dir>/agent.err (until the agent itself sends its
  // standard error to its standard output).
  void start(std::vector<std::string> arguments = {"-D", "-f", "/etc/nivo/qavel.conf"});
  pid_t pid() const { return pid_; }
  // A "Name:  value [kB]" field of the agent's /proc/<pid>/status (VmRSS, VmHWM in kB; Threads);
  // -1 once it is gone.
  long procStatus(const std::string& field) const;
  bool running();
  // To the agent alone, not to the plugins it runs.
  void signal(int signo);
  // The raw wait status once the agent has ended, or nullopt after the timeout.
  std::optional<int> waitExit(std::chrono::milliseconds timeout);
  // "exit status N", "killed by signal N", "stopped" or, without a status, "still running".
  static std::string describeEnd(const std::optional<int>& waitStatus);

  std::string readFile(const std::string& relative) const;  // "" when missing
  std::string log() const { return readFile("agent.log"); }
  std::string output() const { return readFile("agent.out"); }
  std::string errors() const { return readFile("agent.err"); }
  // True once the log holds `text`; polls until the timeout, or until the agent has ended without
  // writing it.
  bool waitForLog(const std::string& text, std::chrono::milliseconds timeout) const;

 private:
  // True once the agent has ended; it is not reaped, so that waitExit still sees its status.
  bool ended() const;

  Paths paths_;
  std::string dir_;
  std::vector<std::string> pluginNames_;
  std::map<std::string, std::string> environment_;
  // Section -> ordered (key, value) lines, written in insertion order.
  std::vector<std::pair<std::string, std::vector<std::pair<std::string, std::string>>>> config_;
  pid_t pid_ = -1;
  std::optional<int> exitStatus_;
};
