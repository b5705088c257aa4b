// NIVO/max_workers, end to end: under a backlog both pools grow only up to the bound, and the
// orders beyond wait in the queue until a worker is free.
#include <regex>

#include "tests/faults/faultTest.h"

namespace agentTest {
namespace {

// The pools start with 2 (monitor) and 1 (web) workers; 30 held orders each make an unbounded pool
// grow to about 6 workers.
constexpr int kOrdersPerPool = 30;
constexpr int kBound = 4;

using PoolBoundTest = FaultTest;

// The largest pool size that a growth trace names (the size before the growth); -1 without one.
int largestGrowthFrom(const std::string& log) {
  static const std::regex growth("POOL EXEC: Create New Thread, new size([0-9]+)\n");
  int largest = -1;
  for (std::sregex_iterator it(log.begin(), log.end(), growth), end; it != end; ++it)
    largest = std::max(largest, std::stoi((*it)[1]));
  return largest;
}

TEST_F(PoolBoundTest, PoolsGrowUpToTheBoundAndEveryOrderIsAnswered) {
  sandbox_->setKey("NIVO", "max_workers", std::to_string(kBound));
  addPlugin("pool_block", "pool_block.sh");
  ASSERT_TRUE(launchRunning());

  // Each order holds its worker until "release" exists; priority 1 goes to the web pool.
  int id = 0;
  for (const int priority : {5, 1})
    for (int n = 0; n < kOrdersPerPool; ++n, ++id)
      server_->sendExec(id, "pool_block",
                        marker("started-" + std::to_string(id)) + " " + marker("release"),
                        priority);
  // Released once every order has reached its pool: the backlog is then at its largest.
  ASSERT_TRUE(eventually([&] {
    const std::string log = sandbox_->log();
    std::size_t pushes = 0;
    for (std::size_t at = 0; (at = log.find("PUSH servicepool_block", at)) != log.npos; ++at)
      ++pushes;
    return pushes == 2 * kOrdersPerPool;
  }));
  release("release");

  const auto all = AnswerBook::byTask(answers_.wait(2 * kOrdersPerPool));
  for (int task = 0; task < 2 * kOrdersPerPool; ++task)
    EXPECT_EQ(all.count(task) ? all.at(task) : std::vector<Json::Value>{},
              once(qavel::execResponse(0, task, "released\n", 0)))
        << "task " << task;

  // Both pools grew to the bound (the web pool from 1, the monitor pool from 2) and no further.
  const std::string log = sandbox_->log();
  EXPECT_EQ(largestGrowthFrom(log), kBound - 1);
  EXPECT_NE(log.find("#NOTICE#POOL EXEC: pool at its bound of " + std::to_string(kBound) +
                     " workers; further orders wait in the queue\n"),
            std::string::npos);
}

}  // namespace
}  // namespace agentTest
