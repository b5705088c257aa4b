// A burst of orders with a trivial plugin, while the agent reads its configuration again and again
// (its catalogue changing each time) and, unsanitized, runs under an address-space limit that
// leaves room for about a hundred 8 MB thread stacks, far fewer than the backlog makes the pools
// ask for. Every order is answered exactly once, whichever catalogue it meets and however many
// workers the system grants; the agent runs on, and gives back the descriptors and reaps the
// children it used. Prints the figures of the run: throughput, peak memory and thread count (the
// pools grow with the backlog and never shrink, so the count after the burst is its peak).
#include <signal.h>

#include <atomic>
#include <regex>
#include <thread>

#include "tests/faults/faultTest.h"

namespace agentTest {
namespace {

class BurstTest : public FaultTest {
 protected:
  // A sanitizer's shadow memory needs an unlimited address space.
  std::string program() const override {
    return kSanitized ? FaultTest::program() : "/usr/bin/prlimit";
  }
};

TEST_F(BurstTest, EveryOrderIsAnsweredOnceUnderReloadsAndTheThreadLimit) {
  constexpr int kOrders = kSanitized ? 1000 : 10000;
  sandbox_->addPlugin("check_dummy", NIVO_MONITORING_PLUGIN_DIR "/check_dummy");
  std::vector<std::string> arguments = kProductionArguments;
  // About 1 GB: room for the idle agent (under 200 MB) and its hundred-odd stacks.
  if (!kSanitized) arguments.insert(arguments.begin(), {"--as=1073741824", NIVO_AGENT_PATH});
  ASSERT_TRUE(launchAndWarmUp(arguments));
  const pid_t agent = sandbox_->pid();
  const long idleDescriptors = openDescriptors(agent);
  const long idleChildren = childProcesses(agent);
  const long idleThreads = sandbox_->procStatus("Threads");
  const long idleResident = sandbox_->procStatus("VmRSS");

  std::atomic<bool> loading{true};
  int reloads = 0;
  std::thread reloader([&] {
    for (; loading || reloads < 20; ++reloads) {
      sandbox_->setPluginList(reloads % 2 == 0
                                  ? std::vector<std::string>{"check_dummy"}
                                  : std::vector<std::string>{"check_dummy", "plugin_exit"});
      sandbox_->signal(SIGHUP);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
  const auto start = Clock::now();
  // Priorities 1 to 9: both pools get their share.
  for (int id = 1; id <= kOrders; ++id) server_->sendExec(id, "check_dummy", "0 OK", 1 + id % 9);
  const auto sent = Clock::now();
  const bool allAnswered = waitForAnswersWhileTheyCome(1 + kOrders);
  loading = false;
  reloader.join();
  ASSERT_TRUE(allAnswered) << answers_.size() - 1 << " of " << kOrders << " orders answered";
  const double seconds = std::chrono::duration<double>(answers_.lastArrival() - start).count();

  auto all = answeredOnce();
  for (int id = 1; id <= kOrders; ++id)
    ASSERT_EQ(all[id], once(qavel::execResponse(0, id, "OK: OK\n", 0))) << "task " << id;
  EXPECT_EQ(server_->waitForFrames(0, kWait).size(), answers_.size() + 1);  // one REGISTER
  // Results finishing together still leave one whole line.
  EXPECT_TRUE(eventually([&] {
    return std::regex_match(sandbox_->readFile("tmp/lastexec"), std::regex("[0-9]+\n"));
  }));
  const std::string log = sandbox_->log();
  std::size_t applied = 0;
  for (std::size_t at = 0; (at = log.find("#NOTICE#NIVO reload: plugins ", at)) != log.npos; ++at)
    ++applied;
  EXPECT_GT(applied, 10u) << "of " << reloads << " SIGHUPs";
  // The limit was reached: the system refused a worker, and the agent went on with those it had.
  EXPECT_TRUE(kSanitized || log.find("Create New Thread failed") != std::string::npos);

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
            << seconds << " s, " << static_cast<long>(kOrders / seconds) << " orders/s; " << reloads
            << " SIGHUPs, " << applied << " reloads that changed the catalogue\n"
            << "agent: VmRSS idle " << idleResident << " kB, VmHWM "
            << sandbox_->procStatus("VmHWM") << " kB, VmRSS after " << sandbox_->procStatus("VmRSS")
            << " kB; threads idle " << idleThreads << ", after " << sandbox_->procStatus("Threads")
            << std::endl;
  EXPECT_TRUE(sandbox_->running()) << "agent " << ending(kWait);
}

}  // namespace
}  // namespace agentTest
