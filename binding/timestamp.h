/// A point in time as records carry it: seconds and nanoseconds, 32 bits each.
#pragma once

#include <boost/optional.hpp>
#include <chrono>
#include <cstdint>

#include "binding/record.h"

namespace binding {

struct Timestamp {
  /// A fraction of a second is below this.
  static constexpr std::uint32_t nanoseconds_per_second = 1'000'000'000;

  std::uint32_t seconds = 0;
  std::uint32_t nanoseconds = 0;

  [[nodiscard]] static constexpr Timestamp of_us(std::uint64_t us) {
    return {.seconds = static_cast<std::uint32_t>(us / us_per_second),
            .nanoseconds = static_cast<std::uint32_t>(us % us_per_second * 1000)};
  }
  [[nodiscard]] static constexpr Timestamp of(std::chrono::nanoseconds time) {
    const auto whole = std::chrono::floor<std::chrono::seconds>(time);
    return {.seconds = static_cast<std::uint32_t>(whole.count()),
            .nanoseconds = static_cast<std::uint32_t>((time - whole).count())};
  }

  [[nodiscard]] constexpr std::uint64_t us() const {
    return nanoseconds / 1000 + seconds * us_per_second;
  }
  [[nodiscard]] constexpr std::chrono::nanoseconds since_epoch() const {
    return std::chrono::seconds{seconds} + std::chrono::nanoseconds{nanoseconds};
  }

 private:
  static constexpr std::uint64_t us_per_second = 1'000'000;
};

/// The time stamp of a record, on the precise local time base. None when one of its two members is
/// absent.
template <class Record>
[[nodiscard]] boost::optional<Timestamp> timestamp_of(const Record& record) {
  if (!record.preciseLocalTimeSeconds || !record.preciseLocalTimeNanoseconds) return boost::none;
  return Timestamp{.seconds = *record.preciseLocalTimeSeconds,
                   .nanoseconds = *record.preciseLocalTimeNanoseconds};
}

/// Sets both members; in a record that has a quality for each, as physical values.
template <class Record>
void set_timestamp(Record& record, const Timestamp& timestamp) {
  record.preciseLocalTimeSeconds = timestamp.seconds;
  record.preciseLocalTimeNanoseconds = timestamp.nanoseconds;
  if constexpr (requires { record.preciseLocalTimeSeconds_valueType; }) {
    record.preciseLocalTimeSeconds_valueType = Value_type::physical_value;
    record.preciseLocalTimeNanoseconds_valueType = Value_type::physical_value;
  }
}

}  // namespace binding
