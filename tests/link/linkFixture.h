// Fixture for the link tests: a log in a fresh directory, the in-process protocol peer on
// 127.0.0.1, and a record of what the endpoint's message callback was handed.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "src/common/logFile.h"
#include "src/link/WSSEndpoint.h"
#include "tests/common/tempDirTest.h"
#include "tools/peer/qavelServer.h"

constexpr std::chrono::seconds kWait{10};

// The callback is a plain function pointer, so what it receives is kept in one static record.
class CallbackRecord {
 public:
  static void callback(std::weak_ptr<void> /*hdl*/, std::string payload) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      payloads_.push_back(std::move(payload));
    }
    changed_.notify_all();
  }
  static void clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    payloads_.clear();
  }
  // The payloads, once there are at least count of them (fewer after kWait).
  static std::vector<std::string> waitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, kWait, [&] { return payloads_.size() >= count; });
    return payloads_;
  }

 private:
  static inline std::mutex mutex_;
  static inline std::condition_variable changed_;
  static inline std::vector<std::string> payloads_;
};

class LinkTest : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    CallbackRecord::clear();
    log_ = std::make_unique<logFile>(static_cast<char>(0), path("log"));
  }

  // Starts the server, connects and returns once the endpoint is open: the server's greeting
  // reached the callback.
  qavel::ConnectionInfo openLink(WSSEndpoint& endpoint) {
    server_ = std::make_unique<qavel::QavelServer>();
    server_->start();
    endpoint.setCallbackFctOnMessage(&CallbackRecord::callback);
    endpoint.connect("wss://127.0.0.1:" + std::to_string(server_->port()));
    const std::optional<qavel::ConnectionInfo> link = server_->waitForConnection(kWait);
    if (!link) throw std::runtime_error("the endpoint did not connect");
    server_->sendRaw("hello");
    if (CallbackRecord::waitFor(1).empty()) throw std::runtime_error("no greeting");
    return *link;
  }

  std::string logText() const { return readFile("log"); }

  std::unique_ptr<logFile> log_;
  std::unique_ptr<qavel::QavelServer> server_;
};
