#include "faultFixture.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

namespace faults {
namespace {

// Far from the identifiers that the tests use.
constexpr int kWarmUpTask = 999999;

// The last `bytes` of a text: a failing test's log may hold plugin outputs of many megabytes.
std::string tail(const std::string& text, std::size_t bytes = 16384) {
  return text.size() <= bytes ? text : "[...]\n" + text.substr(text.size() - bytes);
}

}  // namespace

void AnswerBook::record(const qavel::ReceivedFrame& frame) {
  if (!frame.isJson || !frame.json.isObject()) return;
  const Json::Value& command = frame.json["COMMAND"];
  {
    const std::lock_guard<std::mutex> guard(lock_);
    if (command == "REGISTER") {
      registered_ = true;
    } else if (command == "EXEC-RESPONSE") {
      const Json::Value& id = frame.json["TASK"]["TASKID"];
      byTask_[id.isInt() ? id.asInt() : -1].push_back(frame.json);
      ++total_;
      lastArrival_ = Clock::now();
    } else {
      return;
    }
  }
  changed_.notify_all();
}

bool AnswerBook::waitForRegister(Clock::duration limit) {
  std::unique_lock<std::mutex> guard(lock_);
  return changed_.wait_for(guard, limit, [this] { return registered_; });
}

bool AnswerBook::waitForTasks(std::size_t count, Clock::duration limit) {
  std::unique_lock<std::mutex> guard(lock_);
  return changed_.wait_for(guard, limit, [&] { return byTask_.size() >= count; });
}

std::vector<Json::Value> AnswerBook::waitFor(int taskId, Clock::duration limit) {
  std::unique_lock<std::mutex> guard(lock_);
  changed_.wait_for(guard, limit, [&] { return byTask_.count(taskId) != 0; });
  const auto found = byTask_.find(taskId);
  return found == byTask_.end() ? std::vector<Json::Value>() : found->second;
}

std::map<int, std::vector<Json::Value>> AnswerBook::all() const {
  const std::lock_guard<std::mutex> guard(lock_);
  return byTask_;
}

std::size_t AnswerBook::tasks() const {
  const std::lock_guard<std::mutex> guard(lock_);
  return byTask_.size();
}

std::size_t AnswerBook::total() const {
  const std::lock_guard<std::mutex> guard(lock_);
  return total_;
}

Clock::time_point AnswerBook::lastArrival() const {
  const std::lock_guard<std::mutex> guard(lock_);
  return lastArrival_;
}

long ProcessProbe::status(pid_t pid, const std::string& field) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(file, line)) {
    if (line.compare(0, field.size() + 1, field + ":") == 0)
      return std::strtol(line.c_str() + field.size() + 1, nullptr, 10);
  }
  return -1;
}

int ProcessProbe::descriptors(pid_t pid) {
  std::error_code error;
  std::filesystem::directory_iterator entries("/proc/" + std::to_string(pid) + "/fd", error);
  if (error) return -1;
  int count = 0;
  for (auto it = entries; it != std::filesystem::directory_iterator(); it.increment(error)) ++count;
  return error ? -1 : count;
}

int ProcessProbe::children(pid_t pid) {
  int count = 0;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
    const std::string name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    // "pid (comm) state ppid ...": comm may hold blanks and parentheses; read after the last ')'.
    std::ifstream file(entry.path() / "stat");
    std::string stat;
    std::getline(file, stat);
    const std::size_t close = stat.rfind(')');
    if (close == std::string::npos) continue;
    std::istringstream rest(stat.substr(close + 1));
    std::string state;
    long parent = 0;
    if (rest >> state >> parent && parent == pid) ++count;
  }
  return count;
}

void FaultTest::SetUp() {
  if (geteuid() != 0)
    GTEST_SKIP() << "needs root: each agent runs in a private mount namespace of its own";
  // A peer or a server process may be gone when the test writes to it: the write fails instead.
  signal(SIGPIPE, SIG_IGN);
  sandbox_ = std::make_unique<agentSandbox>(agentSandbox::Paths{program(), NIVO_SANDBOX_RUN}, "");
  addPlugin("plugin_exit", "plugin_exit.sh");
  // What a ThreadSanitizer build of the agent reports by design; other builds ignore it.
  const char* const inherited = std::getenv("TSAN_OPTIONS");
  std::string options = inherited != nullptr ? inherited : "";
  if (!options.empty()) options += ":";
  sandbox_->setEnvironment("TSAN_OPTIONS", options + "suppressions=" NIVO_AGENT_TSAN_SUPPRESSIONS);
}

void FaultTest::TearDown() {
  if (sandbox_ == nullptr) return;
  // A sanitizer's report from the agent is a fault even when the test saw what it wanted.
  const std::string printed = sandbox_->output() + sandbox_->errors();
  for (const char* mark : {"Sanitizer", "runtime error"})
    EXPECT_EQ(printed.find(mark), std::string::npos) << tail(printed);
  if (HasFailure())
    std::cerr << "---- agent log\n"
              << tail(sandbox_->log()) << "---- agent output\n"
              << tail(printed);
  // The agent before the peer: an agent that outlived its peer would see a lost link.
  sandbox_.reset();
  server_.reset();
}

void FaultTest::startServer(qavel::ServerOptions options) {
  options.onFrame = [this](const qavel::ReceivedFrame& frame) { answers_.record(frame); };
  server_ = std::make_unique<qavel::QavelServer>(std::move(options));
  server_->start();
}

std::string FaultTest::serverUrl() const {
  return "wss://127.0.0.1:" + std::to_string(server_->port());
}

void FaultTest::launch(qavel::ServerOptions options, const std::vector<std::string>& arguments) {
  startServer(std::move(options));
  sandbox_->setKey("NIVO", "server_url", serverUrl());
  sandbox_->start(arguments);
}

::testing::AssertionResult FaultTest::launchAndWarmUp(const std::vector<std::string>& arguments) {
  launch({}, arguments);
  if (!answers_.waitForRegister()) return ::testing::AssertionFailure() << "no REGISTER came";
  // Sent at once: an order that arrives before the pools exist waits for them.
  server_->sendExec(kWarmUpTask, "plugin_exit", "warm", 5);
  const std::vector<Json::Value> got = answers_.waitFor(kWarmUpTask);
  if (got.size() != 1 || got[0] != qavel::execResponse(0, kWarmUpTask, "warm\n", 0))
    return ::testing::AssertionFailure() << "the warm-up order was not answered once, correctly";
  return ::testing::AssertionSuccess();
}

void FaultTest::addPlugin(const std::string& name, const std::string& file) {
  sandbox_->addPlugin(name, kPlugins + "/" + file);
}

std::string FaultTest::marker(const std::string& name) const { return sandbox_->path(name); }

bool FaultTest::waitForMarker(const std::string& name) const {
  return eventually([&] { return std::filesystem::exists(marker(name)); });
}

void FaultTest::release(const std::string& name) { sandbox_->writeFile(name, ""); }

bool FaultTest::waitForAnswersWhileTheyCome(std::size_t tasks) {
  constexpr std::chrono::seconds kStall{30};
  std::size_t seen = answers_.tasks();
  auto progress = Clock::now();
  while (!answers_.waitForTasks(tasks, std::chrono::milliseconds(200))) {
    if (!sandbox_->running()) return answers_.tasks() >= tasks;
    const std::size_t now = answers_.tasks();
    if (now != seen) {
      seen = now;
      progress = Clock::now();
    } else if (Clock::now() - progress > kStall) {
      return false;
    }
  }
  return true;
}

bool FaultTest::logHas(const std::string& text) const {
  return sandbox_->log().find(text) != std::string::npos;
}

}  // namespace faults
