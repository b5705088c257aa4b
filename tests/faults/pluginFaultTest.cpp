// Plugins that misbehave: never end, leave a background process on their output, close their output
// and run on, crash, or print tens of megabytes. Each holds at most its own worker; every other
// order is answered, correctly, once; and the agent's memory goes back to its idle size.
#include <iostream>

#include "faultFixture.h"

namespace faults {
namespace {

// What plugin_big.sh prints for `bytes`.
std::string bigOutput(std::size_t bytes) {
  const std::string line = "0123456789abcdef\n";
  std::string text;
  text.reserve(bytes + line.size());
  while (text.size() < bytes) text += line;
  text.resize(bytes);
  return text;
}

class PluginFaultTest : public FaultTest {
 protected:
  // Sends `count` orders of plugin_exit from `firstId` on, alternating between the two pools.
  void sendOrdinaryOrders(int firstId, int count) {
    for (int id = firstId; id < firstId + count; ++id)
      server_->sendExec(id, "plugin_exit", "task-" + std::to_string(id), id % 2 == 0 ? 1 : 5);
  }

  // Each of them answered exactly once, with its own output.
  void expectOrdinaryAnswers(int firstId, int count) {
    const auto all = answers_.all();
    for (int id = firstId; id < firstId + count; ++id) {
      const auto found = all.find(id);
      ASSERT_NE(found, all.end()) << "task " << id << " not answered";
      EXPECT_EQ(found->second, std::vector<Json::Value>{qavel::execResponse(
                                   0, id, "task-" + std::to_string(id) + "\n", 0)});
    }
  }

  // The agent's resident memory in kB.
  long residentKb() const { return ProcessProbe::status(sandbox_->pid(), "VmRSS"); }
};

// Orders that block reach the workers first; the pools grow only when more than four orders per
// worker wait, so enough ordinary orders follow to make them grow past the held workers.
TEST_F(PluginFaultTest, PluginsThatHoldOrCrashLeaveEveryOtherOrderAnswered) {
  addPlugin("fault_forever", "fault_forever.sh");
  addPlugin("fault_background", "fault_background.sh");
  addPlugin("fault_close_stdout", "fault_close_stdout.sh");
  addPlugin("fault_segv", "fault_segv.sh");
  ASSERT_TRUE(launchAndWarmUp());

  server_->sendExec(1, "fault_forever", marker("forever-monitor"), 5);
  server_->sendExec(2, "fault_background", marker("background") + " " + marker("release"), 5);
  server_->sendExec(3, "fault_close_stdout", marker("closed") + " " + marker("release"), 5);
  server_->sendExec(4, "fault_forever", marker("forever-web"), 1);
  server_->sendExec(5, "fault_segv", "", 5);
  ASSERT_TRUE(waitForMarker("forever-monitor"));
  ASSERT_TRUE(waitForMarker("background"));
  ASSERT_TRUE(waitForMarker("forever-web"));

  constexpr int kOrdinary = 100;
  sendOrdinaryOrders(100, kOrdinary);
  ASSERT_TRUE(answers_.waitForTasks(1 + kOrdinary + 1)) << "warm-up, ordinary orders, crash";
  expectOrdinaryAnswers(100, kOrdinary);
  // Three attempts, each ended by the signal; the last one's texts are reported.
  EXPECT_EQ(answers_.waitFor(5),
            std::vector<Json::Value>{qavel::execResponse(
                0, 5, "Error: orva can't execute " + sandbox_->path("plugins/fault_segv"), 3)});
  EXPECT_TRUE(waitForMarker("closed")) << "the third holding order never got a worker";
  EXPECT_TRUE(answers_.waitFor(2, std::chrono::seconds(0)).empty());
  EXPECT_TRUE(answers_.waitFor(3, std::chrono::seconds(0)).empty());

  release("release");
  EXPECT_EQ(answers_.waitFor(2),
            std::vector<Json::Value>{qavel::execResponse(0, 2, "foreground done\n", 0)});
  EXPECT_EQ(answers_.waitFor(3), std::vector<Json::Value>{qavel::execResponse(0, 3, "early\n", 2)});
  EXPECT_EQ(answers_.total(), answers_.all().size()) << "a task was answered twice";
  const auto all = answers_.all();
  EXPECT_EQ(all.count(1) + all.count(4), 0u) << "a plugin that never ends was answered";
  EXPECT_TRUE(sandbox_->running());
}

// As JSON, under the peer's 32 MB limit. A sanitized agent takes about a second per megabyte.
constexpr std::size_t kLargeOutput = (kSanitized ? 4u : 24u) * 1024 * 1024;

TEST_F(PluginFaultTest, LargeOutputIsSentWholeWhileOtherOrdersGoOn) {
  addPlugin("plugin_big", "plugin_big.sh");
  ASSERT_TRUE(launchAndWarmUp(kProductionArguments));
  server_->sendExec(1, "plugin_big", std::to_string(kLargeOutput), 5);
  sendOrdinaryOrders(100, 20);
  const std::vector<Json::Value> got = answers_.waitFor(1);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_TRUE(got[0] == qavel::execResponse(0, 1, bigOutput(kLargeOutput), 0))
      << "the large answer differs";
  ASSERT_TRUE(answers_.waitForTasks(1 + 1 + 20));
  expectOrdinaryAnswers(100, 20);
}

// glibc's allocator keeps memory that worker threads freed unless it is told otherwise; an agent
// that kept every output's peak would sit on it for the rest of its life, on every host.
TEST_F(PluginFaultTest, MemoryReturnsToIdleSizeOnceLargeOutputIsSent) {
  if (kSanitized) GTEST_SKIP() << "the sanitizer's allocator keeps freed memory in quarantine";
  constexpr long kToleranceKb = 8 * 1024;
  addPlugin("plugin_big", "plugin_big.sh");
  ASSERT_TRUE(launchAndWarmUp(kProductionArguments));
  const long idle = residentKb();
  const long idlePeak = ProcessProbe::status(sandbox_->pid(), "VmHWM");

  server_->sendExec(1, "plugin_big", std::to_string(kLargeOutput), 5);
  ASSERT_EQ(answers_.waitFor(1).size(), 1u);
  long after = residentKb();
  const bool returned =
      eventually([&] { return (after = residentKb()) <= idle + kToleranceKb; }, kWait);
  const long peak = ProcessProbe::status(sandbox_->pid(), "VmHWM");
  std::cout << "agent memory, " << kLargeOutput << "-byte output: idle VmRSS " << idle
            << " kB (VmHWM " << idlePeak << " kB), VmHWM " << peak << " kB, VmRSS after " << after
            << " kB" << std::endl;
  EXPECT_TRUE(returned) << "VmRSS stays at " << after << " kB, idle was " << idle << " kB";
}

}  // namespace
}  // namespace faults
