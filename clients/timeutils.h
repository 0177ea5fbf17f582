/// The current time of the process, on the precise local time base (PLT) of the vehicle, and
/// arithmetic on its milliseconds. The GNSS client and the Positioning service use it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "ara/time/slave_time_base.h"

/// The clock of the process and its offset. All times are unsigned 64-bit counts since the epoch of
/// the time base unless said otherwise. Any thread may call every function.
class timeutils {
 public:
  /// The one instance of the process, created on first use. Throws the exception of the time base
  /// if that is missing, and tries again on the next call.
  [[nodiscard]] static timeutils& instance();

  virtual ~timeutils() = default;
  timeutils(const timeutils&) = delete;
  timeutils& operator=(const timeutils&) = delete;

  /// Time since the epoch of the time base. Throws std::runtime_error if the clock behind it is
  /// gone.
  [[nodiscard]] virtual std::chrono::nanoseconds now() const;
  [[nodiscard]] std::uint64_t current_time_us() const { return to_us(now()); }
  [[nodiscard]] std::uint64_t current_time_ms() const;

  [[nodiscard]] static constexpr std::uint64_t to_us(std::chrono::nanoseconds time) {
    return static_cast<std::uint64_t>(time.count()) / 1000;
  }

  /// The current time in milliseconds without its upper bits, as exchanged by nodes with small
  /// counters. Remembers the full value for expand_31_bit_ms_to_us().
  [[nodiscard]] std::int32_t current_time_31_bit_ms();
  /// Full microseconds of a 31-bit millisecond value (bit 31 is ignored). The result is in the
  /// period of the last full time that current_time_31_bit_ms() read if it lies within 5 days of
  /// that time, else one period earlier. A later period is never tried. In the first period of the
  /// time base the earlier period is reached by unsigned wrap-around.
  [[nodiscard]] std::uint64_t expand_31_bit_ms_to_us(std::int32_t milliseconds) const;

  /// The platform offset, as given by the time master; 0 until then.
  void set_offset(std::uint64_t offset);
  [[nodiscard]] std::uint64_t add_offset(std::uint64_t value) const;

  [[nodiscard]] static constexpr std::uint64_t absolute_difference(std::uint64_t a,
                                                                   std::uint64_t b) {
    return a > b ? a - b : b - a;
  }

 protected:
  /// Finds and opens the time base. Throws std::runtime_error if that fails.
  timeutils();

 private:
  // Relaxed: each value is independent, no other memory is published with it.
  std::atomic<std::uint64_t> offset_{0};
  std::atomic<std::uint64_t> last_full_ms_{0};
  const ara::time::SlaveTimeBaseResourceProxy resource_;
  const ara::time::SynchSlaveTimeBase time_base_;
};
