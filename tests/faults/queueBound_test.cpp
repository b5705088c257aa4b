// NIVO/max_queue, under a flood: with both pools' only workers held, orders beyond the bound are
// answered at once and never queued, so the agent's memory stays flat however many come, and every
// order, refused or run, is answered exactly once.
#include "tests/faults/faultTest.h"

namespace agentTest {
namespace {

using QueueBoundTest = FaultTest;

TEST_F(QueueBoundTest, FloodBeyondTheBoundIsAnsweredAtOnceInFlatMemory) {
  constexpr int kBound = 100;
  // Sent in batches, each answered before the next: what grows then is the agent's own, not the
  // answers piling up in its send buffer when this process reads them slowly on a loaded machine.
  // Unbounded, 50,000 waiting orders would take about 50 MB.
  constexpr int kFlood = kSanitized ? 10000 : 50000;
  constexpr int kBatch = 5000;
  sandbox_->setKey("NIVO", "max_queue", std::to_string(kBound));
  sandbox_->setKey("NIVO", "thread", "1");
  sandbox_->setKey("NIVO", "max_workers", "1");
  sandbox_->setKey("LOG", "metrics_file", "/tmp/nivo/nivo-agent.prom");
  sandbox_->addPlugin("check_dummy", NIVO_MONITORING_PLUGIN_DIR "/check_dummy");
  addPlugin("pool_block", "pool_block.sh");
  ASSERT_TRUE(launchAndWarmUp(kProductionArguments));

  // One held worker in each pool (priority 1: web, 5: monitor), for up to ten minutes.
  for (const int priority : {1, 5})
    server_->sendExec(
        priority, "pool_block",
        marker("started-" + std::to_string(priority)) + " " + marker("release") + " 12000",
        priority);
  ASSERT_TRUE(waitForMarker("started-1") && waitForMarker("started-5"));
  for (int id = 10; id < 10 + kBound; ++id) server_->sendExec(id, "check_dummy", "0 OK", 5);
  const long before = sandbox_->procStatus("VmRSS");

  const int first = 1000;
  for (int sent = 0; sent < kFlood; sent += kBatch) {
    for (int id = first + sent; id < first + sent + kBatch; ++id)
      server_->sendExec(id, "check_dummy", "0 OK", 5);
    ASSERT_TRUE(waitForAnswersWhileTheyCome(1 + sent + kBatch));
  }
  const long peak = sandbox_->procStatus("VmHWM");
  release("release");
  ASSERT_TRUE(waitForAnswersWhileTheyCome(1 + kFlood + 2 + kBound));

  auto all = answeredOnce();
  const std::string busy = "UNKNOWN: the agent is busy with " + std::to_string(kBound) +
                           " orders waiting; this one was not run";
  for (int id = first; id < first + kFlood; ++id)
    ASSERT_EQ(all[id], once(qavel::execResponse(5, id, busy, 3))) << "task " << id;
  for (int id = 10; id < 10 + kBound; ++id)
    ASSERT_EQ(all[id], once(qavel::execResponse(0, id, "OK: OK\n", 0))) << "task " << id;
  EXPECT_EQ(all[1], once(qavel::execResponse(0, 1, "released\n", 0)));

  std::cout << kFlood << " orders beyond the bound: agent VmRSS " << before << " kB before, VmHWM "
            << peak << " kB after" << std::endl;
  if (!kSanitized) {  // a sanitizer keeps freed memory in quarantine
    EXPECT_LT(peak - before, 16 * 1024) << "kB";
  }
  const std::string log = sandbox_->log();
  const std::string notice = "#NOTICE#NIVO max_queue reached: " + std::to_string(kBound);
  EXPECT_EQ(log.find(notice), log.rfind(notice)) << "said more than once";
  EXPECT_NE(log.find(notice), std::string::npos);
}

}  // namespace
}  // namespace agentTest
