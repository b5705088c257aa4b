// Carries a stop request, and a reload request, from signal context to the main thread. The
// installed handler only records the signal number and writes one byte to a pipe, both
// async-signal-safe; the main thread sleeps on that pipe and runs the stop routine itself, in
// normal context, where logging, allocation and closing the link are allowed. Other threads that
// stop the agent wake it the same way, so a stop never waits for the rest of a long pause.
#pragma once

#include <chrono>

namespace stopSignal {

// Creates the wake-up pipe and installs the recording handler for `signo`, a stop request.
void arm(int signo);
// The same for `signo` as a reload request, recorded apart from the stop requests so that neither
// hides the other.
void armReload(int signo);
// Sleeps for `duration` or until woken; true when woken early.
bool sleepFor(std::chrono::milliseconds duration);
// The signal number of the stop request recorded since the last call, or 0.
int takePending();
// True when a reload was requested since the last call.
bool takeReload();
// Wakes the sleeping main thread; safe from any thread and from signal context.
void wake();

}  // namespace stopSignal
