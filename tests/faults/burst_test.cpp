// A burst of orders with a trivial plugin: every one is answered exactly once, and the agent gives
// back the descriptors and reaps the children it used. Prints the figures of the run: throughput,
// peak memory and thread count (the pools grow with the backlog and never shrink, so the count
// after the burst is its peak).
#include <regex>

#include "tests/faults/faultTest.h"

namespace agentTest {
namespace {

class BurstTest : public FaultTest {};

TEST_F(BurstTest, EveryOrderOfBurstIsAnsweredExactlyOnce) {
  // A sanitized agent forks about ten times slower.
  constexpr int kOrders = kSanitized ? 1000 : 10000;
  sandbox_->addPlugin("check_dummy", NIVO_MONITORING_PLUGIN_DIR "/check_dummy");
  ASSERT_TRUE(launchAndWarmUp(kProductionArguments));
  const pid_t agent = sandbox_->pid();
  const long idleDescriptors = openDescriptors(agent);
  const long idleChildren = childProcesses(agent);
  const long idleThreads = sandbox_->procStatus("Threads");
  const long idleResident = sandbox_->procStatus("VmRSS");

  const auto start = Clock::now();
  // Priorities 1 to 9: both pools get their share.
  for (int id = 1; id <= kOrders; ++id) server_->sendExec(id, "check_dummy", "0 OK", 1 + id % 9);
  const auto sent = Clock::now();
  ASSERT_TRUE(waitForAnswersWhileTheyCome(1 + kOrders))
      << answers_.size() - 1 << " of " << kOrders << " orders answered";
  const double seconds = std::chrono::duration<double>(answers_.lastArrival() - start).count();

  auto all = answeredOnce();
  for (int id = 1; id <= kOrders; ++id)
    ASSERT_EQ(all[id], once(qavel::execResponse(0, id, "OK: OK\n", 0))) << "task " << id;
  // Results finishing together still leave one whole line.
  EXPECT_TRUE(eventually([&] {
    return std::regex_match(sandbox_->readFile("tmp/lastexec"), std::regex("[0-9]+\n"));
  }));

  // The last answer leaves before its worker has closed the pipe and reaped the plugin.
  long descriptors = -1;
  long children = -1;
  EXPECT_TRUE(eventually([&] {
    descriptors = openDescriptors(agent);
    children = childProcesses(agent);
    return descriptors == idleDescriptors && children == idleChildren;
  })) << descriptors
      << " descriptors (idle " << idleDescriptors << "), " << children << " children (idle "
      << idleChildren << ")";

  std::cout << "burst of " << kOrders << " orders: sent in "
            << std::chrono::duration<double>(sent - start).count() << " s, all answered in "
            << seconds << " s, " << static_cast<long>(kOrders / seconds) << " orders/s\n"
            << "agent: VmRSS idle " << idleResident << " kB, VmHWM "
            << sandbox_->procStatus("VmHWM") << " kB, VmRSS after " << sandbox_->procStatus("VmRSS")
            << " kB; threads idle " << idleThreads << ", after " << sandbox_->procStatus("Threads")
            << std::endl;
  EXPECT_TRUE(sandbox_->running());
}

// The system caps the number of threads a process may have: a task limit of the service manager,
// the kernel's maximum, the address space that every thread's stack takes a share of. A burst
// that makes the pools grow into the cap must leave the agent running and every order answered by
// the workers that it has. Here the cap is an address-space limit, set by prlimit before it runs
// the agent.
class ThreadLimitTest : public FaultTest {
 protected:
  void SetUp() override {
    if (kSanitized) GTEST_SKIP() << "a sanitizer's shadow memory needs an unlimited address space";
    FaultTest::SetUp();
  }
  std::string program() const override { return "/usr/bin/prlimit"; }
};

TEST_F(ThreadLimitTest, BurstThatOutgrowsThreadLimitLeavesEveryOrderAnswered) {
  // About 1 GB: room for the idle agent (under 200 MB) and a hundred-odd 8 MB thread stacks, far
  // fewer than the burst's backlog asks for.
  constexpr long kAddressSpace = 1L << 30;
  constexpr int kBurst = 2000;
  sandbox_->addPlugin("check_dummy", NIVO_MONITORING_PLUGIN_DIR "/check_dummy");
  std::vector<std::string> arguments = {"--as=" + std::to_string(kAddressSpace), NIVO_AGENT_PATH};
  arguments.insert(arguments.end(), kProductionArguments.begin(), kProductionArguments.end());
  ASSERT_TRUE(launchAndWarmUp(arguments));

  int sent = 0;
  try {
    for (; sent < kBurst; ++sent) server_->sendExec(sent + 1, "check_dummy", "0 OK", 5);
  } catch (const qavel::ServerError& e) {
    ADD_FAILURE() << "the link closed after " << sent << " orders (" << e.what() << ")";
  }
  EXPECT_TRUE(waitForAnswersWhileTheyCome(1 + kBurst))
      << answers_.size() - 1 << " of " << kBurst << " orders answered";
  EXPECT_TRUE(sandbox_->running()) << "agent " << ending(kWait);
  answeredOnce();
  std::cout << "threads under the limit: " << sandbox_->procStatus("Threads") << std::endl;
}

}  // namespace
}  // namespace agentTest
