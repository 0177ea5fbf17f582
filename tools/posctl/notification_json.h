/// A notification as JSON: what posctl watch prints and what the page gets.
#pragma once

#include <algorithm>
#include <chrono>
#include <optional>
#include <string_view>
#include <vector>

#include "binding/timestamp.h"
#include "tools/posctl/record_json.h"
#include "tools/posctl/time_base.h"

namespace posctl {

/// Seconds on this machine's time base since a record's time stamp; nothing without one.
template <class Record>
[[nodiscard]] std::optional<double> age_s(const Record& record) {
  if constexpr (requires { record.preciseLocalTimeSeconds; }) {
    const auto stamp = binding::timestamp_of(record);
    if (!stamp) return std::nullopt;
    return static_cast<double>((time_base_now() - stamp->since_epoch()).count()) / 1e9;
  } else {
    return std::nullopt;
  }
}

/// Seconds since 1970 on the system clock.
[[nodiscard]] inline double seconds_since_1970() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

/// `received` in seconds since 1970; `age` of the last record, if it has one.
template <class Record>
[[nodiscard]] Json notification_json(std::string_view field,
                                     const std::vector<Record>& records,
                                     double received,
                                     std::optional<double> age) {
  Json json{{"schema", 1}, {"field", field}, {"received", received}, {"records", to_json(records)}};
  if constexpr (requires(Record record) { record.preciseLocalTimeSeconds; }) {
    if (std::ranges::all_of(json["records"], is_stamp_only)) {
      json["initial"] = true;
    } else if (age) {
      json["ageS"] = *age;
    }
  }
  return json;
}

}  // namespace posctl
