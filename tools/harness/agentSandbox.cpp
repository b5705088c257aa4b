#include "tools/harness/agentSandbox.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "src/common/uniqueFd.h"
#include "tools/harness/procScan.h"

namespace fs = std::filesystem;

namespace {

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// The child's side of start(): only async-signal-safe calls, since the caller may have threads.
// The agent leads a process group of its own so that the plugins it leaves behind can be killed
// with it.
[[noreturn]] void execAgent(int outputFd, int errorFd, int nullFd, char* const* argv,
                            char* const* envp) {
  if (setpgid(0, 0) == -1) _exit(126);
  if (dup2(nullFd, STDIN_FILENO) == -1 || dup2(outputFd, STDOUT_FILENO) == -1 ||
      dup2(errorFd, STDERR_FILENO) == -1)
    _exit(126);
  sigset_t none;
  if (close_range(3, ~0U, 0) == -1 || sigemptyset(&none) == -1 ||
      sigprocmask(SIG_SETMASK, &none, nullptr) == -1)
    _exit(126);
  execve(argv[0], argv, envp);
  _exit(127);
}

// Every process whose mounts include the sandbox's overlays (their options name `dir`): whatever
// runs in the namespace sandbox-run made, the agent's plugins included after it has ended. A
// namespace's number does not tell it, since another sandbox's may take it up once it is gone.
std::vector<pid_t> processesInSandbox(const std::string& dir) {
  std::error_code ignored;
  const fs::path host = fs::read_symlink("/proc/self/ns/mnt", ignored);
  std::vector<pid_t> found = processesWhose("mountinfo", dir + "/.overlay/");
  found.erase(std::remove_if(found.begin(), found.end(),
                             [&](pid_t pid) {
                               return fs::read_symlink("/proc/" + std::to_string(pid) + "/ns/mnt",
                                                       ignored) == host;
                             }),
              found.end());
  return found;
}

}  // namespace

agentSandbox::agentSandbox(Paths paths, const std::string& serverUrl, const std::string& parent)
    : paths_(std::move(paths)) {
  std::string pattern = parent + "/nivo-agent.XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) fail("mkdtemp " + pattern);
  dir_ = pattern;
  fs::create_directories(path("etc"));
  fs::create_directories(path("tmp"));
  fs::create_directories(path("plugins"));

  setKey("LOG", "info", path("status"));
  setKey("LOG", "log_file", path("agent.log"));
  setKey("LOG", "lastExec", "/tmp/nivo/lastexec");
  setKey("SSL", "cafile", "/etc/nivo/ca.pem");
  setKey("SSL", "local_cert", "/etc/nivo/agent.pem");
  setKey("NIVO", "plugin_list", "/etc/nivo/plugins.list");
  setKey("NIVO", "plugin_dir", path("plugins"));
  setKey("NIVO", "server_url", serverUrl);
  setKey("NIVO", "ip_command", "/usr/sbin/ip");
  setKey("NIVO", "thread", "2");
  writeFile("etc/sn", "SN-TEST-0001\n");
  setPluginList({});
}

agentSandbox::~agentSandbox() {
  if (running()) {
    kill(pid_, SIGKILL);
    waitExit(std::chrono::seconds(10));
  }
  if (pid_ > 0) kill(-pid_, SIGKILL);
  // Plugins the agent left behind, running or blocked, whether it still ran or not: each leads a
  // process group of its own, with whatever it started, and holds files in the directory. They
  // are no longer the agent's children once it has ended, but stay in its mount namespace.
  const pid_t ownGroup = getpgrp();
  for (const pid_t plugin : processesInSandbox(dir_)) {
    const pid_t group = getpgid(plugin);
    kill(group > 0 && group != ownGroup ? -group : plugin, SIGKILL);
  }
  std::error_code ignored;
  fs::remove_all(dir_, ignored);
}

std::string agentSandbox::path(const std::string& relative) const { return dir_ + "/" + relative; }

void agentSandbox::setKey(const std::string& section, const std::string& key,
                          const std::string& value) {
  for (auto& [name, lines] : config_) {
    if (name != section) continue;
    for (auto& line : lines) {
      if (line.first == key) {
        line.second = value;
        return;
      }
    }
    lines.emplace_back(key, value);
    return;
  }
  config_.push_back({section, {{key, value}}});
}

void agentSandbox::removeKey(const std::string& section, const std::string& key) {
  for (auto& [name, lines] : config_) {
    if (name != section) continue;
    for (auto it = lines.begin(); it != lines.end(); ++it) {
      if (it->first == key) {
        lines.erase(it);
        return;
      }
    }
  }
}

void agentSandbox::writeFile(const std::string& relative, const std::string& content, mode_t mode) {
  const fs::path target = path(relative);
  fs::create_directories(target.parent_path());
  // Written aside and renamed into place: a running agent that reads the file meanwhile (a reload)
  // sees the old content or the new, never a part.
  const fs::path written = target.string() + ".sandbox-new";
  {
    std::ofstream file(written, std::ios::out | std::ios::trunc | std::ios::binary);
    if (!file) fail("cannot write " + written.string());
    file << content;
  }
  if (chmod(written.c_str(), mode) != 0) fail("chmod " + written.string());
  fs::rename(written, target);
}

void agentSandbox::removeFile(const std::string& relative) {
  std::error_code ignored;
  fs::remove_all(path(relative), ignored);
}

void agentSandbox::addPlugin(const std::string& name, const std::string& sourcePath) {
  const fs::path target = path("plugins/" + name);
  fs::copy_file(sourcePath, target, fs::copy_options::overwrite_existing);
  fs::permissions(target, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                              fs::perms::others_read | fs::perms::others_exec);
  pluginNames_.push_back(name);
  setPluginList(pluginNames_);
}

void agentSandbox::setEnvironment(const std::string& name, const std::string& value) {
  environment_[name] = value;
}

void agentSandbox::setPluginList(const std::vector<std::string>& names) {
  pluginNames_ = names;
  std::string list;
  for (const std::string& name : names) list += name + "\n";
  writeFile("etc/plugins.list", list);
}

void agentSandbox::writeConfig() {
  std::string text;
  for (const auto& [section, lines] : config_) {
    text += "[" + section + "]\n";
    for (const auto& [key, value] : lines) text += key + "=" + value + "\n";
    text += "\n";
  }
  writeFile("etc/qavel.conf", text);
}

void agentSandbox::start(std::vector<std::string> arguments) {
  if (running()) throw std::logic_error("agent already running");
  writeConfig();
  std::vector<std::string> words{paths_.sandboxRun, dir_, paths_.agent};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);

  std::vector<std::string> variables;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string text = *variable;
    if (environment_.count(text.substr(0, text.find('='))) == 0) variables.push_back(text);
  }
  for (const auto& [name, value] : environment_) variables.push_back(name + "=" + value);
  std::vector<char*> envp;
  for (std::string& variable : variables) envp.push_back(variable.data());
  envp.push_back(nullptr);

  const UniqueFd output(
      open(path("agent.out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (output.get() == -1) fail("open agent.out");
  const UniqueFd errors(
      open(path("agent.err").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (errors.get() == -1) fail("open agent.err");
  const UniqueFd null(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (null.get() == -1) fail("open /dev/null");
  exitStatus_.reset();
  pid_ = fork();
  if (pid_ == 0) execAgent(output.get(), errors.get(), null.get(), argv.data(), envp.data());
  if (pid_ == -1) fail("fork");
  // Also from this side, so that the group exists whichever process runs first. EACCES: the child
  // has already executed, after its own call did it; ESRCH: it has already ended.
  if (setpgid(pid_, pid_) == -1 && errno != EACCES && errno != ESRCH) fail("setpgid");
}

long agentSandbox::procStatus(const std::string& field) const {
  std::ifstream file("/proc/" + std::to_string(pid_) + "/status");
  for (std::string line; std::getline(file, line);)
    if (line.compare(0, field.size() + 1, field + ":") == 0)
      return std::strtol(line.c_str() + field.size() + 1, nullptr, 10);
  return -1;
}

bool agentSandbox::running() {
  if (pid_ <= 0 || exitStatus_) return false;
  return !waitExit(std::chrono::milliseconds(0));
}

void agentSandbox::signal(int signo) {
  if (pid_ > 0 && !exitStatus_) kill(pid_, signo);
}

std::optional<int> agentSandbox::waitExit(std::chrono::milliseconds timeout) {
  if (exitStatus_ || pid_ <= 0) return exitStatus_;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    int status = 0;
    const pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
      exitStatus_ = status;
      return exitStatus_;
    }
    if (done == -1 && errno != EINTR) fail("waitpid");
    if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

std::string agentSandbox::readFile(const std::string& relative) const {
  std::ifstream file(path(relative), std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

bool agentSandbox::waitForLog(const std::string& text, std::chrono::milliseconds timeout) const {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    // Looked at before the log is read: an agent found ended has written its last line.
    const bool over = ended();
    if (log().find(text) != std::string::npos) return true;
    if (over || std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

bool agentSandbox::ended() const {
  if (exitStatus_) return true;
  if (pid_ <= 0) return false;
  siginfo_t info{};
  // WNOWAIT leaves the agent a zombie for waitExit to reap; si_pid stays 0 while it runs.
  while (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == -1) {
    if (errno != EINTR) return false;
  }
  return info.si_pid == pid_;
}

std::string agentSandbox::describeEnd(const std::optional<int>& waitStatus) {
  if (!waitStatus) return "still running";
  if (WIFEXITED(*waitStatus)) return "exit status " + std::to_string(WEXITSTATUS(*waitStatus));
  if (WIFSIGNALED(*waitStatus)) return "killed by signal " + std::to_string(WTERMSIG(*waitStatus));
  return "stopped";
}
