/// Records of the Time service, each described once.
#pragma once

#include <boost/optional.hpp>
#include <cstdint>
#include <string>

#include "binding/record.h"

namespace lumo::services::time::datatypes {

/// A time from the time master.
struct DT_times_struct {
  boost::optional<std::uint32_t> type;
  boost::optional<std::uint32_t> utcSeconds;
  boost::optional<std::uint32_t> utcNanoseconds;
  boost::optional<std::int32_t> leapSeconds;
  boost::optional<std::uint32_t> syncState;
  boost::optional<std::uint64_t> pltOffset;
};

/// The display format of times in the vehicle.
struct DT_timeSettings_struct {
  boost::optional<std::int32_t> timeZoneOffset;
  boost::optional<bool> daylightSavingTime;
  boost::optional<std::uint32_t> timeFormat;
  boost::optional<std::uint32_t> dateFormat;
  boost::optional<std::string> timeZoneName;
};

}  // namespace lumo::services::time::datatypes

template <>
struct binding::Description<lumo::services::time::datatypes::DT_times_struct> {
  using Record = lumo::services::time::datatypes::DT_times_struct;
  static constexpr std::string_view name = "lumo::services::time::datatypes::DT_times_struct";
  static constexpr auto entries = std::tuple{
      member(0,
             "type",
             &Record::type,
             "",
             "2 = platform time, the only type that carries a used pltOffset"),
      member(1, "utcSeconds", &Record::utcSeconds, "s", "coordinated universal time"),
      member(2, "utcNanoseconds", &Record::utcNanoseconds, "ns", "fraction of that time"),
      member(3, "leapSeconds", &Record::leapSeconds, "s", "TAI minus UTC"),
      member(4, "syncState", &Record::syncState, "", "0 = free running, 1 = synchronized"),
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
      member(3,
             "dateFormat",
             &Record::dateFormat,
             "",
             "0 = year first, 1 = day first, 2 = month first"),
      member(4, "timeZoneName", &Record::timeZoneName, "", "name in the time zone database")};
};
