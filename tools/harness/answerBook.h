// The answers an agent sends the protocol peer, as the tests, the benchmarks and the demo wait for
// them: every "EXEC-RESPONSE" in arrival order, when each task's came, and the "REGISTER"s. Fed
// from the peer's frame callback; every call may be made from any thread. A wait gives up early
// once the agent has been gone for a second (what it sent has arrived by then), and at its limit.
#pragma once

#include <json/json.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "tools/peer/qavelServer.h"

class AnswerBook {
 public:
  using Clock = std::chrono::steady_clock;

  // `defaultLimit`: how long a wait lasts when no limit is given.
  explicit AnswerBook(Clock::duration defaultLimit) : defaultLimit_(defaultLimit) {}

  void record(const qavel::ReceivedFrame& frame);
  // Tells the waits whether the agent still runs.
  void setAgentAlive(std::function<bool()> alive);
  // Called on the peer's thread after each answer is recorded; it may send the next order.
  void onAnswer(std::function<void()> hook);

  // True once `count` REGISTERs have come.
  bool waitForRegister() { return waitForRegister(defaultLimit_); }
  bool waitForRegister(Clock::duration limit, std::size_t count = 1);
  // True once `count` answers have come, in all.
  bool waitForCount(std::size_t count) { return waitForCount(count, defaultLimit_); }
  bool waitForCount(std::size_t count, Clock::duration limit);
  // The answers, once there are at least `count` of them (fewer after the limit).
  std::vector<Json::Value> wait(std::size_t count) { return wait(count, defaultLimit_); }
  std::vector<Json::Value> wait(std::size_t count, Clock::duration limit);
  // Every answer to `taskId`, once there is one.
  std::vector<Json::Value> to(int taskId) { return to(taskId, defaultLimit_); }
  std::vector<Json::Value> to(int taskId, Clock::duration limit);

  std::size_t size() const;
  Clock::time_point lastArrival() const;
  Clock::time_point arrival(int taskId) const;  // of its latest answer
  // Tasks first..last: how many were never answered, and how many answers came more than once.
  std::pair<int, int> lostAndDuplicated(int first, int last) const;

  static std::map<int, std::vector<Json::Value>> byTask(const std::vector<Json::Value>& answers);

 private:
  template <typename Done>
  bool waitWhileAlive(std::unique_lock<std::mutex>& guard, Clock::duration limit, Done done);

  const Clock::duration defaultLimit_;
  std::function<bool()> alive_;
  std::function<void()> onAnswer_;
  mutable std::mutex lock_;
  std::condition_variable changed_;
  std::vector<Json::Value> answers_;
  std::map<int, int> perTask_;
  std::map<int, Clock::time_point> arrivals_;
  std::size_t registers_ = 0;
  Clock::time_point lastArrival_;
};
