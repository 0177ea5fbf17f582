/// Distances and directions on the ground, for short ways.
#pragma once

#include <cmath>
#include <numbers>

namespace drive {

constexpr double radians(double degrees) {
  return degrees * std::numbers::pi / 180;
}
constexpr double degrees(double radians) {
  return radians * 180 / std::numbers::pi;
}

/// In metres per second.
constexpr double kmh(double value) {
  return value / 3.6;
}

/// Into [0, period).
inline double wrapped(double value, double period) {
  const double rest = std::fmod(value, period);
  return rest < 0 ? rest + period : rest;
}

/// Metres.
struct Offset {
  double east = 0;
  double north = 0;
  [[nodiscard]] double length() const { return std::hypot(east, north); }
  /// Degrees from north.
  [[nodiscard]] double direction() const { return degrees(std::atan2(east, north)); }
};

/// WGS84: metres of one radian to the north and to the east. One tangent plane serves for some
/// kilometres.
struct Radii {
  double north = 0;
  double east = 0;

  [[nodiscard]] static Radii at(double latitude) {
    constexpr double semi_major = 6378137.0;
    constexpr double eccentricity_squared = 6.69437999014e-3;
    const double sine = std::sin(radians(latitude));
    const double w = std::sqrt(1 - eccentricity_squared * sine * sine);
    return {semi_major * (1 - eccentricity_squared) / (w * w * w),
            semi_major / w * std::cos(radians(latitude))};
  }
};

struct Place {
  double latitude = 0;   ///< degrees
  double longitude = 0;  ///< degrees, [-180, 180]

  [[nodiscard]] Offset to(const Place& other, const Radii& earth) const {
    return {radians(std::remainder(other.longitude - longitude, 360)) * earth.east,
            radians(other.latitude - latitude) * earth.north};
  }
  [[nodiscard]] Place moved(const Offset& offset, const Radii& earth) const {
    return {latitude + degrees(offset.north / earth.north),
            std::remainder(longitude + degrees(offset.east / earth.east), 360)};
  }
};

/// The smaller turn from one direction to another, to the right positive.
inline double turn_between(double from, double to) {
  return std::remainder(to - from, 360);
}

/// A bend of length 1 that turns by `turn` degrees from north. The curvature rises and falls
/// smoothly, as a driver steers: its peak is twice the mean.
struct Unit_bend {
  /// Part of the turn that is done after part `u` of the length.
  [[nodiscard]] static double turned(double u) {
    return u - std::sin(2 * std::numbers::pi * u) / (2 * std::numbers::pi);
  }
  [[nodiscard]] static double steering(double u) { return 1 - std::cos(2 * std::numbers::pi * u); }

  /// The way after part `u` of the length, beginning in direction `heading`.
  [[nodiscard]] static Offset way(double heading, double turn, double u) {
    // Simpson's rule over the bend so far.
    constexpr int steps = 64;
    const double step = u / steps;
    Offset way;
    for (int index = 0; index <= steps; ++index) {
      const double weight = index == 0 || index == steps ? 1 : (index % 2 == 1 ? 4 : 2);
      const double direction = radians(heading + turn * turned(index * step));
      way.east += weight * std::sin(direction);
      way.north += weight * std::cos(direction);
    }
    return {way.east * step / 3, way.north * step / 3};
  }

  /// The distance from either end to the corner where the two directions meet.
  [[nodiscard]] static double corner_distance(double turn) {
    return way(0, turn, 1).length() / (2 * std::cos(radians(turn / 2)));
  }
};

/// What a vehicle can do.
inline constexpr double min_radius = 6;            ///< metres
inline constexpr double lateral_limit = 2.5;       ///< m/s2
inline constexpr double acceleration_limit = 1.5;  ///< m/s2
inline constexpr double braking_limit = 2;         ///< m/s2
/// A sharper corner is driven as a turn behind the point.
inline constexpr double max_corner = 120;  ///< degrees

/// The shortest bend with this turn.
inline double min_bend_length(double turn) {
  return 2 * std::abs(radians(turn)) * min_radius;
}

}  // namespace drive
