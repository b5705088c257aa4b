// Polls a condition owned by other threads until it holds or a deadline passes. The deadline only
// bounds a failing test; a passing one returns as soon as the condition is seen.
#pragma once

#include <chrono>
#include <cstdlib>
#include <thread>

// How long a test waits for what should happen: 30 s, wide because a sanitized agent starts and
// forks slowly. NIVO_TEST_WAIT_SECONDS shortens it where failures come by the hundred and each
// would otherwise wait it out (the mutation run).
inline std::chrono::seconds testWait() {
  static const std::chrono::seconds wait{[] {
    const char* const set = std::getenv("NIVO_TEST_WAIT_SECONDS");
    const long seconds = set != nullptr ? std::strtol(set, nullptr, 10) : 0;
    return seconds > 0 ? seconds : 30L;
  }()};
  return wait;
}

template <typename Condition>
bool eventually(Condition condition, std::chrono::steady_clock::duration limit = testWait()) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}
