// Plugins that misbehave: never end, leave a background process on their output, close their output
// and run on, crash, or signal their whole process group. Each holds at most its own worker; every
// other order is answered, correctly, once.

#include "tests/faults/faultTest.h"

namespace agentTest {
namespace {

class PluginFaultTest : public FaultTest {
 protected:
  // Sends `count` orders of plugin_exit from `firstId` on, alternating between the two pools.
  void sendOrdinaryOrders(int firstId, int count) {
    for (int id = firstId; id < firstId + count; ++id)
      server_->sendExec(id, "plugin_exit", "task-" + std::to_string(id), id % 2 == 0 ? 1 : 5);
  }

  // Each of them answered exactly once, with its own output.
  void expectOrdinaryAnswers(int firstId, int count) {
    auto all = AnswerBook::byTask(answers_.wait(0));
    for (int id = firstId; id < firstId + count; ++id)
      EXPECT_EQ(all[id], once(qavel::execResponse(0, id, "task-" + std::to_string(id) + "\n", 0)));
  }
};

// Orders that block reach the workers first; the pools grow only when more than four orders per
// worker wait, so enough ordinary orders follow to make them grow past the held workers.
TEST_F(PluginFaultTest, PluginsThatHoldOrCrashLeaveEveryOtherOrderAnswered) {
  for (const char* plugin : {"fault_forever", "fault_background", "fault_close_stdout",
                             "fault_segv", "fault_kill_group"})
    addPlugin(plugin, std::string(plugin) + ".sh");
  ASSERT_TRUE(launchAndWarmUp());

  server_->sendExec(1, "fault_forever", marker("forever-monitor"), 5);
  server_->sendExec(2, "fault_background", marker("background") + " " + marker("release"), 5);
  server_->sendExec(3, "fault_close_stdout", marker("closed") + " " + marker("release"), 5);
  server_->sendExec(4, "fault_forever", marker("forever-web"), 1);
  server_->sendExec(5, "fault_segv", "", 5);
  server_->sendExec(6, "fault_kill_group", "", 5);
  ASSERT_TRUE(waitForMarker("forever-monitor"));
  ASSERT_TRUE(waitForMarker("background"));
  ASSERT_TRUE(waitForMarker("forever-web"));

  constexpr int kOrdinary = 100;
  sendOrdinaryOrders(100, kOrdinary);
  ASSERT_EQ(answers_.wait(1 + kOrdinary + 2).size(), 1u + kOrdinary + 2)
      << "warm-up, ordinary orders, crash, group signal";
  expectOrdinaryAnswers(100, kOrdinary);
  // Three attempts, each ended by the signal; the last one's texts are reported.
  EXPECT_EQ(answers_.to(5),
            once(qavel::execResponse(
                0, 5, "Error: orva can't execute " + sandbox_->path("plugins/fault_segv"), 3)));
  // A plugin that signals its whole group reaches neither the agent nor another plugin.
  EXPECT_EQ(answers_.to(6), once(qavel::execResponse(0, 6, "group leader\n", 0)));
  EXPECT_TRUE(waitForMarker("closed")) << "the third holding order never got a worker";
  EXPECT_TRUE(answers_.to(2, std::chrono::seconds(0)).empty());
  EXPECT_TRUE(answers_.to(3, std::chrono::seconds(0)).empty());

  release("release");
  EXPECT_EQ(answers_.to(2), once(qavel::execResponse(0, 2, "foreground done\n", 0)));
  EXPECT_EQ(answers_.to(3), once(qavel::execResponse(0, 3, "early\n", 2)));
  const auto all = answeredOnce();
  EXPECT_EQ(all.count(1) + all.count(4), 0u) << "a plugin that never ends was answered";
  EXPECT_TRUE(sandbox_->running());
}

}  // namespace
}  // namespace agentTest
