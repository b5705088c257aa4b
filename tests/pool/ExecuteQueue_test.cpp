#include "src/pool/ExecuteQueue.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>

#include "tests/common/eventually.h"
#include "tests/common/tempDirTest.h"

namespace {

// True when the thread is asleep in the kernel, which for a consumer of an uncontended queue means
// it is parked on the condition variable. Read from /proc because the queue shows no waiters.
bool asleep(pid_t tid) {
  std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string line;
  std::getline(stat, line);
  const auto end = line.rfind(')');  // the state follows the command name, which may hold blanks
  return end != std::string::npos && end + 2 < line.size() && line[end + 2] == 'S';
}

TEST(ExecuteQueueTest, ElementsLeaveInPushOrderAndEmptyPopThrows) {
  ExecuteQueue<int> queue;
  for (int i = 1; i <= 3; ++i) queue.push(i);
  EXPECT_EQ(queue.size(), 3);
  for (int i = 1; i <= 3; ++i) EXPECT_EQ(queue.pop(), i);
  EXPECT_EQ(thrownText<EmptyQueueException>([&] { queue.pop(); }), "queue is empty");
  queue.push(7);
  EXPECT_EQ(queue.pop(), 7);
}

TEST(ExecuteQueueTest, OnePushWakesOneWaiterAndBroadcastWakesTheRest) {
  ExecuteQueue<int> queue;
  std::atomic<bool> stop{false};
  std::atomic<int> returned{0};
  std::atomic<pid_t> tids[3] = {};
  std::thread waiters[3];
  for (int i = 0; i < 3; ++i) {
    waiters[i] = std::thread([&, i] {
      tids[i] = static_cast<pid_t>(syscall(SYS_gettid));
      queue.waitNotEmptyOrDie(&stop);
      ++returned;
    });
  }
  // Twice in a row, so that a waiter caught for a moment on the mutex is not taken for parked.
  for (int round = 0; round < 2; ++round) {
    for (const auto& tid : tids) EXPECT_TRUE(eventually([&] { return tid && asleep(tid); }));
  }
  queue.push(1);  // left in the queue, so every waiter woken by it returns
  EXPECT_TRUE(eventually([&] { return returned >= 1; }));
  // A push that woke everyone would have let the others return well within this time.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(returned, 1);

  queue.broadcast();
  EXPECT_TRUE(eventually([&] { return returned == 3; }));
  while (returned < 3) queue.push(0);  // so that a failed test cannot hang
  for (std::thread& waiter : waiters) waiter.join();
}

}  // namespace
