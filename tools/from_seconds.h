/// Times that people give in seconds.
#pragma once

#include <chrono>
#include <cmath>

namespace tools {

/// To the nearest nanosecond.
[[nodiscard]] inline std::chrono::nanoseconds from_seconds(double seconds) {
  return std::chrono::nanoseconds(std::llround(seconds * 1e9));
}

}  // namespace tools
