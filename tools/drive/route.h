/// A route that a synthetic drive follows.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tools/drive/geometry.h"

namespace drive {

/// What surrounds the vehicle, as far as the sky is concerned.
enum class Surroundings : unsigned char { open, street, tunnel };

/// Of a road with this speed limit in metres per second. Up to 50 km/h it is a street.
[[nodiscard]] constexpr Surroundings surroundings_of(double limit, bool tunnel) {
  if (tunnel) return Surroundings::tunnel;
  return limit <= kmh(50) ? Surroundings::street : Surroundings::open;
}

struct Route_point {
  double latitude = 0;             ///< degrees
  double longitude = 0;            ///< degrees
  std::optional<double> altitude;  ///< metres above mean sea level
  std::optional<double> speed;     ///< metres per second, to the next point
  double dwell = 0;                ///< seconds that the vehicle stands here
  bool tunnel = false;             ///< to the next point
};

struct Route {
  std::vector<Route_point> points;
  double geoid_separation = 0;  ///< metres
};

/// Reads the points of all tracks of a GPX file, else those of its routes, else its way points.
///
/// A point's speed is its `speed` element, in metres per second, also within `extensions`. Without
/// one, it follows from the times of the points. A `type` or `name` of "tunnel" begins a tunnel to
/// the next point. Throws std::runtime_error with the path.
[[nodiscard]] Route read_gpx(const std::string& path);

/// Points that a vehicle can drive along: without those that are too close to the one before, and
/// without corners that are too narrow.
[[nodiscard]] std::vector<Route_point> drivable(const std::vector<Route_point>& points);

}  // namespace drive
