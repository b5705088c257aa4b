// Stand-ins for what order dispatch talks to: a link that records what the agent sends, pools that
// record what they are given, and an exit that is only recorded. They are put in the agent's
// process-wide state once per process (the link's constructor starts a network thread), with a log
// on /dev/null at level 0 so that every line is built.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "src/client/orderDispatch.h"
#include "src/client/orderSettings.h"
#include "src/client/qavel-client.h"

namespace dispatchFakes {

struct SentRecorder : WSSEndpoint {
  using WSSEndpoint::WSSEndpoint;
  void send(std::string text) override { sent.push_back(std::move(text)); }
  void close(std::uint16_t, std::string) override {}
  std::vector<std::string> sent;
};

struct QueueRecorder : PoolThreadService {
  QueueRecorder() : PoolThreadService(1, fileLog) {}
  void executeService(std::shared_ptr<service> s) override { queued.push_back(std::move(s)); }
  std::vector<std::shared_ptr<service>> queued;
};

struct Fakes {
  SentRecorder* link = new SentRecorder(fileLog);
  QueueRecorder* web = new QueueRecorder();
  QueueRecorder* monitor = new QueueRecorder();
  std::vector<int> exits;  // the statuses of the exits asked for

  void clear() {
    link->sent.clear();
    web->queued.clear();
    monitor->queued.clear();
    exits.clear();
  }
};

// The fakes, put in place at the first call.
inline Fakes& fakes() {
  static Fakes* const installed = [] {
    fileLog = new logFile(static_cast<char>(0), "/dev/null");
    auto* made = new Fakes;
    endpoint = made->link;
    webPool = made->web;
    monitorPool = made->monitor;
    agentExit = [](int status) { fakes().exits.push_back(status); };
    return made;
  }();
  return *installed;
}

// The fakes with nothing recorded, and `settings` in use.
inline Fakes& install(OrderSettings settings) {
  publishOrderSettings(std::move(settings));
  fakes().clear();
  return fakes();
}

}  // namespace dispatchFakes
