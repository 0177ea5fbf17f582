/// The lines that ara::log::LinesFrom() returns.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string_view>

#include "ara/log/recent.h"

namespace ara::log {

/// Keeps the process's first lines, warnings and, while a reader asks, every line. Any thread may
/// call. Nothing waits for a reader while the mutex is held.
class Recent_ring {
 public:
  Recent_ring() = default;
  ~Recent_ring() = delete;
  Recent_ring(const Recent_ring&) = delete;
  Recent_ring& operator=(const Recent_ring&) = delete;

  /// Whether add() would keep a line, so that the caller need not make its text. Costs one load
  /// while no reader asks.
  [[nodiscard]] bool wants(LogLevel level) const noexcept {
    return level <= LogLevel::kWarn || all_.load(std::memory_order_relaxed);
  }
  void add(LogLevel level, std::string_view context, std::string_view text);
  [[nodiscard]] Recent_lines from(std::uint64_t number);

 private:
  using Clock = std::chrono::steady_clock;

  /// A flag, because a logging thread must not pay for a look at the clock. add() clears it.
  std::atomic<bool> all_ = true;
  std::mutex mutex_;  ///< guards the members below
  Clock::time_point all_until_;
  std::uint64_t first_ = 0;  ///< number of lines_.front()
  std::size_t bytes_ = 0;
  std::deque<Recent_line> lines_;
};

}  // namespace ara::log
