#include "clients/data_faults.h"

#include <cmath>
#include <type_traits>

#include "binding/timestamp.h"

namespace clients {
namespace {

using binding::Value_type;
using namespace lumo::services::gnss::datatypes;

constexpr double farthest_latitude = 90;
constexpr double farthest_longitude = 180;

template <class Value>
bool is_number(const boost::optional<Value>& value) {
  if (!value) return false;
  if constexpr (std::is_floating_point_v<Value>) {
    return std::isfinite(*value);
  } else {
    return true;
  }
}

/// The faults implied by the quality of a quantity that is not a good physical value.
Data_faults faults_of(Value_type quality) {
  switch (quality) {
    case Value_type::init:
    case Value_type::logical_value:
      return {};
    case Value_type::error:
      return {.error_value = true};
    case Value_type::physical_value:
    default:
      return {.implausible = true};
  }
}

template <class Record>
Data_faults faults_of_quantities(const Record& record) {
  Data_faults faults;
  binding::for_each_quantity<Record>([&](const auto& quantity) {
    const auto& quality = record.*quantity.quality.pointer;
    if (quality == Value_type::physical_value && is_number(record.*quantity.value.pointer)) return;
    if (quality) faults |= faults_of(*quality);
  });
  return faults;
}

}  // namespace

Data_faults data_faults(const DT_positions_struct& record) {
  const auto beyond = [](const auto& value, const auto& quality, auto limit) {
    return quality == Value_type::physical_value && value && std::abs(*value) > limit;
  };
  auto faults = faults_of_quantities(record);
  faults.implausible |=
      beyond(record.LAT, record.LAT_valueType, farthest_latitude) ||
      beyond(record.LON, record.LON_valueType, farthest_longitude) ||
      (record.preciseLocalTimeNanoseconds_valueType == Value_type::physical_value &&
       record.preciseLocalTimeNanoseconds >= binding::Timestamp::nanoseconds_per_second);
  return faults;
}

Data_faults data_faults(const DT_positionsQuality_struct& record) {
  return faults_of_quantities(record);
}

Data_faults data_faults(const DT_posGnssSatInfos_struct& record) {
  return faults_of_quantities(record);
}

Data_faults data_faults(const lumo::services::time::datatypes::DT_times_struct& record) {
  return {.error_value = false,
          .implausible = record.utcNanoseconds >= binding::Timestamp::nanoseconds_per_second};
}

}  // namespace clients
