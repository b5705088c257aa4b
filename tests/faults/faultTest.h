// Fixture of the fault, load and leak tests: the agent fixture, plus probes of the agent's process
// from /proc and plugins that hold their worker until the test releases them.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/e2e/agentTest.h"

namespace agentTest {

constexpr bool kSanitized = NIVO_FAULTS_SANITIZED;
// Without debug lines: a large output would go to the log three times over, and a burst would add
// a dozen lines per order.
const std::vector<std::string> kProductionArguments = {"-f", "/etc/nivo/qavel.conf"};

inline long openDescriptors(pid_t pid) {
  return std::distance(std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd"),
                       std::filesystem::directory_iterator());
}

// Summed over the threads: a plugin is the child of the worker thread that started it.
inline long childProcesses(pid_t pid) {
  long count = 0;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    std::ifstream file(task.path() / "children");
    for (std::string child; file >> child;) ++count;
  }
  return count;
}

class FaultTest : public AgentTest {
 protected:
  void SetUp() override {
    // A peer may be gone when the test writes to it: the write fails instead.
    signal(SIGPIPE, SIG_IGN);
    AgentTest::SetUp();
  }

  // Launches, then has one order answered: the link, both pools and the plugin path all work.
  ::testing::AssertionResult launchAndWarmUp(
      const std::vector<std::string>& arguments = kDebugArguments) {
    constexpr int kWarmUpTask = 999999;  // far from the identifiers that the tests use
    launch({}, arguments);
    if (!answers_.waitForRegister()) return ::testing::AssertionFailure() << "no REGISTER came";
    // Sent at once: an order that arrives before the pools exist waits for them.
    server_->sendExec(kWarmUpTask, "plugin_exit", "warm", 5);
    if (answers_.to(kWarmUpTask) != once(qavel::execResponse(0, kWarmUpTask, "warm\n", 0)))
      return ::testing::AssertionFailure() << "the warm-up order was not answered once, correctly";
    return ::testing::AssertionSuccess();
  }

  // A file in the sandbox that a holding plugin creates when it starts or waits for to end.
  std::string marker(const std::string& name) const { return sandbox_->path(name); }
  bool waitForMarker(const std::string& name) const {
    return eventually([&] { return std::filesystem::exists(marker(name)); });
  }
  void release(const std::string& name) { sandbox_->writeFile(name, ""); }

  // True once `count` answers have come. Waits as long as answers keep coming, so that a burst
  // takes what the machine needs; false once none has come for a while, or the agent ended.
  bool waitForAnswersWhileTheyCome(std::size_t count) {
    std::size_t seen = 0;
    auto progress = Clock::now();
    eventually(
        [&] {
          if (answers_.size() != seen) {
            seen = answers_.size();
            progress = Clock::now();
          }
          return seen >= count || !sandbox_->running() || Clock::now() - progress > kWait;
        },
        std::chrono::hours(1));
    return answers_.size() >= count;
  }

  // The answers by task, each task's checked to be one.
  std::map<int, std::vector<Json::Value>> answeredOnce() {
    auto byTask = AnswerBook::byTask(answers_.wait(0));
    for (const auto& [id, got] : byTask) EXPECT_EQ(got.size(), 1u) << "task " << id;
    return byTask;
  }
};

}  // namespace agentTest
