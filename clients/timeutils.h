/// The process's notion of "now": the precise local time base (PLT) of the vehicle, and arithmetic
/// on its milliseconds. Used by the GNSS client and the Positioning service.
#pragma once

#include <atomic>
#include <cstdint>

#include "ara/time/slave_time_base.h"

/// All times are unsigned 64-bit counts since the epoch of the time base unless said otherwise.
/// Every operation may be called from any thread.
class timeutils {
 public:
  /// The one instance of the process, created on first use. Throws what the time base throws when
  /// it is not there, and tries again on the next call.
  [[nodiscard]] static timeutils& instance();

  virtual ~timeutils() = default;
  timeutils(const timeutils&) = delete;
  timeutils& operator=(const timeutils&) = delete;

  /// Throws std::runtime_error when the clock behind the time base has gone.
  [[nodiscard]] virtual std::uint64_t currentTimeUs() const;
  [[nodiscard]] std::uint64_t currentTimeMs() const;

  /// The current time in milliseconds without its upper bits, as nodes with small counters exchange
  /// it. Remembers the full value for expand31BitMsToUs().
  [[nodiscard]] std::int32_t currentTime31BitMs();
  /// Full microseconds of a 31-bit millisecond value (bit 31 is ignored): in the period of the last
  /// full time that currentTime31BitMs() read when it lies within 5 days of it, else one period
  /// earlier. A later period is never tried. In the first period of the time base the earlier one
  /// is reached by unsigned wrap-around.
  [[nodiscard]] std::uint64_t expand31BitMsToUs(std::int32_t milliseconds) const;

  /// The platform offset, as the time master gives it; 0 until then.
  void setOffset(std::uint64_t offset);
  [[nodiscard]] std::uint64_t addOffset(std::uint64_t value) const;

  [[nodiscard]] static constexpr std::uint64_t absoluteDifference(std::uint64_t a,
                                                                  std::uint64_t b) {
    return a > b ? a - b : b - a;
  }

 protected:
  /// Finds and opens the time base; throws std::runtime_error when that fails.
  timeutils();

 private:
  // Relaxed: each stands alone, no other memory is published with it.
  std::atomic<std::uint64_t> offset_{0};
  std::atomic<std::uint64_t> last_full_ms_{0};
  const ara::time::SlaveTimeBaseResourceProxy resource_;
  const ara::time::SynchSlaveTimeBase time_base_;
};
