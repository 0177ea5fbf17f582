/// Records of the Time service, each described once.
#pragma once

#include <boost/optional.hpp>
#include <cstdint>
#include <string>

#include "binding/record.h"

namespace lumo::services::time::datatypes {

/// The application uses the pltOffset of a platform time only.
enum class Time_type : std::uint32_t { utc = 1, platform = 2 };
constexpr auto enumerators_of(Time_type) {
  using enum Time_type;
  return std::to_array<binding::Enumerator<Time_type>>({{utc, "UTC"}, {platform, "platform time"}});
}

enum class Sync_state : std::uint32_t { free_running = 0, synchronized = 1 };
constexpr auto enumerators_of(Sync_state) {
  using enum Sync_state;
  return std::to_array<binding::Enumerator<Sync_state>>(
      {{free_running, "free running"}, {synchronized, "synchronized"}});
}

enum class Date_format : std::uint32_t { year_first = 0, day_first = 1, month_first = 2 };
constexpr auto enumerators_of(Date_format) {
  using enum Date_format;
  return std::to_array<binding::Enumerator<Date_format>>(
      {{year_first, "year first"}, {day_first, "day first"}, {month_first, "month first"}});
}

/// A time from the time master.
struct DT_times_struct {
  boost::optional<Time_type> type;
  boost::optional<std::uint32_t> utcSeconds;
  boost::optional<std::uint32_t> utcNanoseconds;
  boost::optional<std::int32_t> leapSeconds;
  boost::optional<Sync_state> syncState;
  boost::optional<std::uint64_t> pltOffset;
};

/// The display format of times in the vehicle.
struct DT_timeSettings_struct {
  boost::optional<std::int32_t> timeZoneOffset;
  boost::optional<bool> daylightSavingTime;
  boost::optional<std::uint32_t> timeFormat;
  boost::optional<Date_format> dateFormat;
  boost::optional<std::string> timeZoneName;
};

}  // namespace lumo::services::time::datatypes

template <>
struct binding::Description<lumo::services::time::datatypes::DT_times_struct> {
  using Record = lumo::services::time::datatypes::DT_times_struct;
  static constexpr std::string_view name = "lumo::services::time::datatypes::DT_times_struct";
  static constexpr auto entries = std::tuple{
      member(0, "type", &Record::type, "", "only a platform time's pltOffset is used"),
      member(1, "utcSeconds", &Record::utcSeconds, "s", "coordinated universal time"),
      member(2, "utcNanoseconds", &Record::utcNanoseconds, "ns", "fraction of that time"),
      member(3, "leapSeconds", &Record::leapSeconds, "s", "TAI minus UTC"),
      member(4, "syncState", &Record::syncState),
      member(5, "pltOffset", &Record::pltOffset, "ns", "offset of the precise local time base")};
};

template <>
struct binding::Description<lumo::services::time::datatypes::DT_timeSettings_struct> {
  using Record = lumo::services::time::datatypes::DT_timeSettings_struct;
  static constexpr std::string_view name =
      "lumo::services::time::datatypes::DT_timeSettings_struct";
  static constexpr auto entries = std::tuple{
      member(0, "timeZoneOffset", &Record::timeZoneOffset, "min", "local time minus UTC"),
      member(1, "daylightSavingTime", &Record::daylightSavingTime, "", "in force"),
      member(2, "timeFormat", &Record::timeFormat, "", "12 or 24"),
      member(3, "dateFormat", &Record::dateFormat),
      member(4, "timeZoneName", &Record::timeZoneName, "", "name in the time zone database")};
};
