// Fixture of the fault, load and leak tests: one real agent in a sandbox of its own, the protocol
// peer on 127.0.0.1 with a book of the answers it receives, and probes of the agent's process.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "../common/eventually.h"
#include "agentSandbox.h"
#include "qavelServer.h"

namespace faults {

using Clock = std::chrono::steady_clock;

// Bounds the waits of a failing test; a passing one goes on as soon as its condition holds. Wide,
// because a sanitized agent starts and forks slowly.
constexpr std::chrono::seconds kWait{30};
// A lost link that no result reveals is noticed at the agent's next keep-alive ping, 40 s apart.
constexpr std::chrono::seconds kPingWait{60};

constexpr bool kSanitized = NIVO_FAULTS_SANITIZED;
const std::string kPlugins = NIVO_TEST_PLUGIN_DIR;
const std::string kLinkFailure = "NIVO  QAVEL Link exception ";
const std::string kExitedNormally = "exit status 0";
// The agent's command lines. The production one logs no debug lines: a large output would go to
// the log three times over, and a burst would add a dozen lines per order.
const std::vector<std::string> kDebugArguments = {"-D", "-f", "/etc/nivo/qavel.conf"};
const std::vector<std::string> kProductionArguments = {"-f", "/etc/nivo/qavel.conf"};

// Every "EXEC-RESPONSE" the peer receives, by task identifier, as it arrives. Fed from the peer's
// frame callback so that thousands of answers are counted without copying the frame list.
class AnswerBook {
 public:
  void record(const qavel::ReceivedFrame& frame);
  bool waitForRegister(Clock::duration limit = kWait);
  // True once `count` different tasks have been answered.
  bool waitForTasks(std::size_t count, Clock::duration limit = kWait);
  // The answers to one task, once there is one (empty after the limit).
  std::vector<Json::Value> waitFor(int taskId, Clock::duration limit = kWait);
  // task identifier -> every answer to it, in arrival order.
  std::map<int, std::vector<Json::Value>> all() const;
  std::size_t tasks() const;  // tasks answered
  std::size_t total() const;  // answers, duplicates included
  Clock::time_point lastArrival() const;

 private:
  mutable std::mutex lock_;
  std::condition_variable changed_;
  std::map<int, std::vector<Json::Value>> byTask_;
  std::size_t total_ = 0;
  bool registered_ = false;
  Clock::time_point lastArrival_;
};

// Figures of a live process, from /proc.
struct ProcessProbe {
  // A "Name:  value [kB]" line of /proc/<pid>/status (VmRSS, VmHWM in kB; Threads); -1 when gone.
  static long status(pid_t pid, const std::string& field);
  static int descriptors(pid_t pid);  // entries of /proc/<pid>/fd
  static int children(pid_t pid);     // processes whose parent it is
};

class FaultTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  // What the sandbox starts: the agent, or a program that runs it.
  virtual std::string program() const { return NIVO_AGENT_PATH; }

  // The in-process peer, its answers going to answers_.
  void startServer(qavel::ServerOptions options = {});
  std::string serverUrl() const;
  // Starts the peer and an agent configured to reach it.
  void launch(qavel::ServerOptions options = {},
              const std::vector<std::string>& arguments = kDebugArguments);
  // Launches, then has one order answered: the link, both pools and the plugin path all work.
  ::testing::AssertionResult launchAndWarmUp(
      const std::vector<std::string>& arguments = kDebugArguments);

  void addPlugin(const std::string& name, const std::string& file);
  // A file in the sandbox that a holding plugin creates when it starts or waits for to end.
  std::string marker(const std::string& name) const;
  bool waitForMarker(const std::string& name) const;
  void release(const std::string& name);
  bool logHas(const std::string& text) const;
  // True once `tasks` tasks have been answered. Waits as long as answers keep coming, so that a
  // burst takes what the machine needs; false once none has come for a while, or the agent ended.
  bool waitForAnswersWhileTheyCome(std::size_t tasks);

  std::unique_ptr<agentSandbox> sandbox_;
  std::unique_ptr<qavel::QavelServer> server_;
  AnswerBook answers_;
};

}  // namespace faults
