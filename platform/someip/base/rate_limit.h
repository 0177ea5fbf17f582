/// A bound on lines of the log that a peer can cause.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>

namespace someip {

/// Lets the first lines of each window through and counts the others. Not thread-safe.
class Rate_limit {
 public:
  Rate_limit(std::uint64_t lines, std::chrono::seconds window) : lines_(lines), window_(window) {}

  /// Empty if the line is suppressed, else the number of those before it.
  [[nodiscard]] std::optional<std::uint64_t> admit() {
    const auto now = std::chrono::steady_clock::now();
    if (now - begin_ >= window_) {
      begin_ = now;
      written_ = 0;
    }
    if (written_ >= lines_) {
      ++suppressed_;
      return std::nullopt;
    }
    ++written_;
    return std::exchange(suppressed_, 0);
  }

 private:
  std::uint64_t lines_;
  std::chrono::seconds window_;
  std::chrono::steady_clock::time_point begin_{};
  std::uint64_t written_ = 0;  ///< since begin_
  std::uint64_t suppressed_ = 0;
};

}  // namespace someip
