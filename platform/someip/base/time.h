/// The clock of everything that ends, is due or is remembered.
#pragma once

#include <chrono>

namespace someip {

/// Does not jump when the clock of the machine is set.
using Time = std::chrono::steady_clock::time_point;

}  // namespace someip
