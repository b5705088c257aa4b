// Polls a condition owned by other threads until it holds or a deadline passes. The deadline only
// bounds a failing test; a passing one returns as soon as the condition is seen.
#pragma once

#include <chrono>
#include <thread>

template <typename Condition>
bool eventually(Condition condition,
                std::chrono::steady_clock::duration limit = std::chrono::seconds(30)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}
