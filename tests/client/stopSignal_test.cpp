#include "src/client/stopSignal.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>

namespace {

using std::chrono::milliseconds;

// One process-wide pipe, armed once: the cases run in order in one test.
TEST(StopSignal, PauseEndsAtItsTimeOrAtOnceWhenWokenAndASignalIsTakenOnce) {
  stopSignal::arm(SIGUSR1);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(stopSignal::sleepFor(milliseconds(50)));
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(45));  // whole ms, rounded down

  stopSignal::wake();
  stopSignal::wake();  // wake-ups do not pile up: one pause ends, the next runs its time
  EXPECT_TRUE(stopSignal::sleepFor(milliseconds(60000)));
  EXPECT_FALSE(stopSignal::sleepFor(milliseconds(1)));

  EXPECT_EQ(stopSignal::takePending(), 0);
  ASSERT_EQ(raise(SIGUSR1), 0);
  EXPECT_TRUE(stopSignal::sleepFor(milliseconds(60000)));
  EXPECT_EQ(stopSignal::takePending(), SIGUSR1);
  EXPECT_EQ(stopSignal::takePending(), 0);
}

}  // namespace
