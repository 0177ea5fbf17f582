/// The clock for all deadlines and lifetimes.
#pragma once

#include <chrono>

namespace someip {

/// Does not jump when the machine's clock is set.
using Time = std::chrono::steady_clock::time_point;

}  // namespace someip
