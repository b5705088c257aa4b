#include "pool/ExecuteQueue.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "../common/tempDirTest.h"
#include "eventually.h"

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

// Waits once on the queue from a thread of its own and tells when the wait has returned.
class Waiter {
 public:
  Waiter(ExecuteQueue<int>* queue, std::atomic<bool>* stop)
      : queue_(queue), stop_(stop), thread_([this] {
          tid_ = static_cast<pid_t>(syscall(SYS_gettid));
          queue_->waitNotEmptyOrDie(stop_);
          returned_ = true;
        }) {}
  // Gives the waiter every reason to return until it has, so that a failed test cannot hang.
  ~Waiter() {
    *stop_ = true;
    while (!returned_) {
      queue_->push(0);
      queue_->broadcast();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    thread_.join();
  }

  bool parked() const { return tid_ != 0 && asleep(tid_); }
  bool returned() const { return returned_; }

 private:
  ExecuteQueue<int>* const queue_;
  std::atomic<bool>* const stop_;
  std::atomic<pid_t> tid_{0};
  std::atomic<bool> returned_{false};
  std::thread thread_;
};

class ExecuteQueueTest : public ::testing::Test {
 protected:
  std::unique_ptr<Waiter> waiter() { return std::make_unique<Waiter>(&queue_, &stop_); }

  ExecuteQueue<int> queue_;
  std::atomic<bool> stop_{false};
};

TEST_F(ExecuteQueueTest, ElementsLeaveInPushOrder) {
  for (int i = 1; i <= 5; ++i) queue_.push(i);
  EXPECT_EQ(queue_.size(), 5);
  for (int i = 1; i <= 5; ++i) EXPECT_EQ(queue_.pop(), i);
  EXPECT_EQ(queue_.size(), 0);
}

TEST_F(ExecuteQueueTest, PopOnEmptyQueueThrowsAndLeavesItUsable) {
  EXPECT_EQ(thrownText<EmptyQueueException>([&] { queue_.pop(); }), "queue is empty");
  queue_.push(7);
  EXPECT_EQ(queue_.pop(), 7);
}

TEST_F(ExecuteQueueTest, ClearEmptiesTheQueue) {
  for (int i = 1; i <= 3; ++i) queue_.push(i);
  queue_.clear();
  EXPECT_EQ(queue_.size(), 0);
  EXPECT_THROW(queue_.pop(), EmptyQueueException);
}

TEST_F(ExecuteQueueTest, WaitReturnsAtOnceWithAnElementAndRemovesNothing) {
  queue_.push(1);
  const auto w = waiter();
  EXPECT_TRUE(eventually([&] { return w->returned(); }));
  EXPECT_EQ(queue_.size(), 1);
}

TEST_F(ExecuteQueueTest, WaitReturnsAtOnceWhenTheFlagIsSet) {
  stop_ = true;
  const auto w = waiter();
  EXPECT_TRUE(eventually([&] { return w->returned(); }));
}

TEST_F(ExecuteQueueTest, OnePushWakesOneWaiterAndBroadcastWakesTheRest) {
  std::vector<std::unique_ptr<Waiter>> waiters;
  for (int i = 0; i < 3; ++i) waiters.push_back(waiter());
  // Twice in a row, so that a waiter caught for a moment on the mutex is not taken for parked.
  for (int round = 0; round < 2; ++round) {
    for (const auto& w : waiters) ASSERT_TRUE(eventually([&] { return w->parked(); }));
  }
  const auto returned = [&] {
    int count = 0;
    for (const auto& w : waiters) count += w->returned();
    return count;
  };

  queue_.push(1);  // left in the queue, so every waiter woken by it returns
  ASSERT_TRUE(eventually([&] { return returned() >= 1; }));
  // A push that woke everyone would have let the others return well within this time.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(returned(), 1);

  queue_.broadcast();
  EXPECT_TRUE(eventually([&] { return returned() == 3; }));
}

}  // namespace
