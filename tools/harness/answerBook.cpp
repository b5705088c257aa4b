#include "tools/harness/answerBook.h"

#include <optional>

namespace {

int taskOf(const Json::Value& answer) {
  const Json::Value& id = answer["TASK"]["TASKID"];
  return id.isInt() ? id.asInt() : -1;
}

}  // namespace

void AnswerBook::record(const qavel::ReceivedFrame& frame) {
  if (!frame.isJson || !frame.json.isObject()) return;
  std::function<void()> hook;
  {
    const std::lock_guard<std::mutex> guard(lock_);
    if (frame.json["COMMAND"] == "REGISTER") {
      ++registers_;
    } else if (frame.json["COMMAND"] == "EXEC-RESPONSE") {
      answers_.push_back(frame.json);
      const int task = taskOf(frame.json);
      ++perTask_[task];
      arrivals_[task] = Clock::now();
      hook = onAnswer_;
    } else {
      return;
    }
    lastArrival_ = Clock::now();
  }
  changed_.notify_all();
  if (hook) hook();
}

void AnswerBook::setAgentAlive(std::function<bool()> alive) {
  const std::lock_guard<std::mutex> guard(lock_);
  alive_ = std::move(alive);
}

void AnswerBook::onAnswer(std::function<void()> hook) {
  const std::lock_guard<std::mutex> guard(lock_);
  onAnswer_ = std::move(hook);
}

template <typename Done>
bool AnswerBook::waitWhileAlive(std::unique_lock<std::mutex>& guard, Clock::duration limit,
                                Done done) {
  const auto deadline = Clock::now() + limit;
  std::optional<Clock::time_point> gone;
  while (!done()) {
    const auto now = Clock::now();
    if (now >= deadline || (gone && now - *gone > std::chrono::seconds(1))) return false;
    if (!gone && alive_ && !alive_()) gone = now;
    changed_.wait_for(guard, std::chrono::milliseconds(100));
  }
  return true;
}

bool AnswerBook::waitForRegister(Clock::duration limit, std::size_t count) {
  std::unique_lock<std::mutex> guard(lock_);
  return waitWhileAlive(guard, limit, [&] { return registers_ >= count; });
}

bool AnswerBook::waitForCount(std::size_t count, Clock::duration limit) {
  std::unique_lock<std::mutex> guard(lock_);
  return waitWhileAlive(guard, limit, [&] { return answers_.size() >= count; });
}

std::vector<Json::Value> AnswerBook::wait(std::size_t count, Clock::duration limit) {
  std::unique_lock<std::mutex> guard(lock_);
  waitWhileAlive(guard, limit, [&] { return answers_.size() >= count; });
  return answers_;
}

std::vector<Json::Value> AnswerBook::to(int taskId, Clock::duration limit) {
  std::unique_lock<std::mutex> guard(lock_);
  waitWhileAlive(guard, limit, [&] { return perTask_.count(taskId) != 0; });
  std::vector<Json::Value> found;
  for (const Json::Value& answer : answers_)
    if (taskOf(answer) == taskId) found.push_back(answer);
  return found;
}

std::size_t AnswerBook::size() const {
  const std::lock_guard<std::mutex> guard(lock_);
  return answers_.size();
}

AnswerBook::Clock::time_point AnswerBook::lastArrival() const {
  const std::lock_guard<std::mutex> guard(lock_);
  return lastArrival_;
}

AnswerBook::Clock::time_point AnswerBook::arrival(int taskId) const {
  const std::lock_guard<std::mutex> guard(lock_);
  const auto found = arrivals_.find(taskId);
  return found == arrivals_.end() ? Clock::time_point() : found->second;
}

std::pair<int, int> AnswerBook::lostAndDuplicated(int first, int last) const {
  const std::lock_guard<std::mutex> guard(lock_);
  int lost = 0;
  int duplicated = 0;
  for (int task = first; task <= last; ++task) {
    const auto found = perTask_.find(task);
    const int seen = found == perTask_.end() ? 0 : found->second;
    if (seen == 0) ++lost;
    if (seen > 1) duplicated += seen - 1;
  }
  return {lost, duplicated};
}

std::map<int, std::vector<Json::Value>> AnswerBook::byTask(
    const std::vector<Json::Value>& answers) {
  std::map<int, std::vector<Json::Value>> found;
  for (const Json::Value& answer : answers) found[taskOf(answer)].push_back(answer);
  return found;
}
