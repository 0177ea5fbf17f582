/// Sleeping the whole time, signals or not.
#pragma once

#include <chrono>

/// One relative sleep; interrupted by a signal, it goes on with what remains. Not positive: returns
/// at once.
void sleepResumed(std::chrono::nanoseconds time) noexcept;
