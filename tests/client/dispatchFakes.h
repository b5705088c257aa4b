// Stand-ins for what order dispatch talks to: a link that records what the agent sends, pools that
// record what it queues, and an exit that is only counted. install() puts them in the agent's
// process-wide state; the link is made once per process (its constructor starts a network thread).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "src/client/orderDispatch.h"
#include "src/client/orderSettings.h"
#include "src/client/qavel-client.h"

namespace dispatchFakes {

class SentRecorder : public WSSEndpoint {
 public:
  using WSSEndpoint::WSSEndpoint;
  void send(std::string text) override { sent.push_back(std::move(text)); }
  void close(std::uint16_t, std::string) override {}
  std::vector<std::string> sent;
};

class QueueRecorder : public PoolThreadService {
 public:
  QueueRecorder() : PoolThreadService(1, fileLog) {}
  void executeService(std::shared_ptr<service> s) override { queued.push_back(std::move(s)); }
  std::vector<std::shared_ptr<service>> queued;
};

struct Fakes {
  SentRecorder* link = nullptr;
  QueueRecorder* web = nullptr;
  QueueRecorder* monitor = nullptr;
  int exits = 0;
  int exitStatus = -1;  // of the last exit

  void clear() {
    link->sent.clear();
    web->queued.clear();
    monitor->queued.clear();
    exits = 0;
    exitStatus = -1;
  }
};

inline Fakes& fakes() {
  static Fakes instance;
  return instance;
}

// Puts the fakes in place once per process, with a log on /dev/null at level 0 (every line is
// built); `settings` are put in use at every call.
inline Fakes& install(OrderSettings settings) {
  Fakes& f = fakes();
  if (f.link == nullptr) {
    fileLog = new logFile(static_cast<char>(0), "/dev/null");
    f.link = new SentRecorder(fileLog);
    f.web = new QueueRecorder();
    f.monitor = new QueueRecorder();
    endpoint = f.link;
    webPool = f.web;
    monitorPool = f.monitor;
    agentExit = [](int status) {
      ++fakes().exits;
      fakes().exitStatus = status;
    };
  }
  publishOrderSettings(std::move(settings));
  f.clear();
  return f;
}

}  // namespace dispatchFakes
