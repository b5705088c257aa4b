// SIGHUP under a steady load: 64 orders in flight at all times while the agent reads its
// configuration again and again, its catalogue changing each time. Orders of the plugin that stays
// are answered exactly once, whichever catalogue they meet.
#include <signal.h>

#include <atomic>
#include <thread>

#include "tests/faults/faultTest.h"

namespace agentTest {
namespace {

using ReloadUnderLoadTest = FaultTest;

TEST_F(ReloadUnderLoadTest, ReloadsUnderSixtyFourInFlightLoseAndDuplicateNothing) {
  constexpr int kOrders = kSanitized ? 1000 : 6000;
  constexpr std::size_t kInFlight = 64;
  sandbox_->addPlugin("check_dummy", NIVO_MONITORING_PLUGIN_DIR "/check_dummy");
  ASSERT_TRUE(launchAndWarmUp(kProductionArguments));

  std::atomic<bool> loading{true};
  int reloads = 0;
  std::thread reloader([&] {
    for (; loading; ++reloads) {
      sandbox_->setPluginList(reloads % 2 == 0
                                  ? std::vector<std::string>{"check_dummy"}
                                  : std::vector<std::string>{"check_dummy", "plugin_exit"});
      sandbox_->signal(SIGHUP);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
  // The warm-up's answer is the first.
  for (int id = 1; id <= kOrders; ++id) {
    ASSERT_TRUE(eventually([&] { return id - answers_.size() < kInFlight; }))
        << "stalled at order " << id;
    server_->sendExec(id, "check_dummy", "0 OK", 1 + id % 9);
  }
  const bool allAnswered = waitForAnswersWhileTheyCome(1 + kOrders);
  loading = false;
  reloader.join();
  ASSERT_TRUE(allAnswered) << answers_.size() - 1 << " of " << kOrders << " orders answered";

  auto all = answeredOnce();
  for (int id = 1; id <= kOrders; ++id)
    ASSERT_EQ(all[id], once(qavel::execResponse(0, id, "OK: OK\n", 0))) << "task " << id;
  EXPECT_TRUE(sandbox_->running());
  EXPECT_EQ(server_->waitForFrames(0, kWait).size(), answers_.size() + 1);  // one REGISTER
  const std::string log = sandbox_->log();
  std::size_t applied = 0;
  for (std::size_t at = 0; (at = log.find("#NOTICE#NIVO reload: plugins ", at)) != log.npos; ++at)
    ++applied;
  EXPECT_GT(applied, 10u) << "of " << reloads << " SIGHUPs";
  std::cout << reloads << " SIGHUPs, " << applied << " reloads that changed the catalogue, under "
            << kOrders << " orders" << std::endl;
}

}  // namespace
}  // namespace agentTest
