/// The last map-matched position in fixed-point numbers.
#pragma once

#include <array>
#include <boost/optional.hpp>
#include <cstdint>

#include "diagnosisService/data_identifiers.h"

namespace diagnosisService {

/// The source of the record. Absent members, and numbers that are not finite, stay 0 in the record;
/// members with a validity mark are then marked as not valid.
struct Map_matched_position {
  boost::optional<double> latitude;   ///< deg, WGS 84, north positive
  boost::optional<double> longitude;  ///< deg, WGS 84, east positive
  boost::optional<float> altitude;    ///< m above mean sea level
  boost::optional<float> heading;     ///< deg, clockwise from true north
  boost::optional<float> speed;       ///< m/s over ground
  boost::optional<std::uint32_t> message_counter;
  boost::optional<std::uint32_t> seconds;      ///< of the time stamp, since 1970-01-01
  boost::optional<std::uint32_t> nanoseconds;  ///< of the time stamp
  boost::optional<std::uint32_t> status_map;
  boost::optional<std::uint32_t> status_map_matching;
  boost::optional<std::uint32_t> position_source;
};

/// The output of d_14a2, and the members that only the application sees. Numbers are big-endian.
struct Map_matched_record {
  lumo::services::diag::PositioningMMPos position;
  std::array<std::uint8_t, 2> heading{};  ///< 0.01 deg, clockwise from true north
  std::array<std::uint8_t, 2> speed{};    ///< 0.01 m/s, over ground
  std::array<std::uint8_t, 2> day{};      ///< of the time, days since 1970-01-01
  std::uint8_t message_counter = 0;       ///< of the position, modulo 256
};
static_assert(sizeof(Map_matched_record) == 25);

/// A number that does not fit becomes the nearest that does.
[[nodiscard]] Map_matched_record map_matched_record(const Map_matched_position& position);

}  // namespace diagnosisService
