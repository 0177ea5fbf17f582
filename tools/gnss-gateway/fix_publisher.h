/// Sends the fixes of a receiver and finds its update rate from their times.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "tools/gnss-gateway/output.h"
#include "tools/gnss-gateway/source_options.h"
#include "tools/nmea/fix.h"

namespace gateway {

class Fix_publisher {
 public:
  explicit Fix_publisher(Output& output) : output_(output) {}

  /// Time from the previous fix to `fix`; nothing when one of the two carries no time.
  [[nodiscard]] std::optional<std::chrono::nanoseconds> since_last(const nmea::Fix& fix) const;

  /// Does nothing once the output is done.
  void publish(const nmea::Fix& fix);

  /// The next fix is from another pass over the recording.
  void forget() { last_ = {}; }

  [[nodiscard]] Source_result& result() { return result_; }

 private:
  struct Time {
    std::optional<nmea::Utc_time> utc;
    std::optional<std::chrono::nanoseconds> time_of_day;
  };

  Output& output_;
  Source_result result_;
  Time last_;
  Known_quantities known_;
  std::optional<std::uint32_t> rate_;
};

}  // namespace gateway
