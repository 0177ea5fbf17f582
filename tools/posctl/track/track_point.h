/// A position as files and sentences of other programs know it.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "tools/posctl/record_json.h"

namespace posctl::track {

/// Degrees, metres, seconds. A value that the record does not have, or marks as not physical, is
/// absent.
struct Point {
  std::optional<std::chrono::nanoseconds> utc;  ///< since 1970
  double latitude = 0;
  double longitude = 0;
  std::optional<double> altitude_msl, altitude_wgs84;
  std::optional<double> speed, course, heading;
  std::optional<double> accuracy_horizontal, accuracy_vertical;
  std::optional<double> correction_age;
};

/// The point of a record of positions, the application's or the source's. `ahead` is the lead of
/// the stamps' time base before UTC. Nothing without coordinates on the globe.
[[nodiscard]] std::optional<Point> point_of(const Json& record, std::chrono::nanoseconds ahead);

/// The number `name` of a record, if it is physical.
[[nodiscard]] std::optional<double> number_of(const Json& record, const std::string& name);

/// "2026-11-26T03:15:00.100Z".
[[nodiscard]] std::string utc_text(std::chrono::nanoseconds utc);

/// Without an exponent: the shortest notation, or with that many digits behind the point.
[[nodiscard]] std::string plain(double value);
[[nodiscard]] std::string plain(double value, int digits);

/// An angle from north in degrees with that many digits behind the point, from 0 to below 360 also
/// after rounding.
[[nodiscard]] double direction(double degrees, int digits);

}  // namespace posctl::track
