#include "tools/drive/drive.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace drive {
namespace {

constexpr double pi = std::numbers::pi;
constexpr double radians(double degrees) {
  return degrees * pi / 180;
}
constexpr double degrees(double radians) {
  return radians * 180 / pi;
}

double wrapped(double value, double period) {
  const double rest = std::fmod(value, period);
  return rest < 0 ? rest + period : rest;
}

constexpr double kmh(double value) {
  return value / 3.6;
}

struct Plan {
  double length;     ///< metres; of a stop: 0
  double turn;       ///< degrees
  double speed_out;  ///< metres per second
  bool tunnel = false;
  double dwell = 0;  ///< seconds standing
};

// The last two straights, on the way back, get the length that closes the round. It begins in
// motion, where a receiver can tell everything.
constexpr std::size_t closing_leg_1 = 13;
constexpr std::size_t closing_leg_2 = 17;
constexpr std::array<Plan, 21> plan{{
    {500, 0, kmh(50)},         // town
    {60, 0, kmh(25)},          //
    {60, 90, kmh(25)},         // a street corner
    {150, 0, kmh(70)},         //
    {300, -35, kmh(70)},       // a bend to the left and back
    {300, 35, kmh(70)},        //
    {250, 0, kmh(100)},        //
    {400, 0, kmh(100)},        //
    {900, 0, kmh(100), true},  // the tunnel
    {300, 25, kmh(100)},       // a bend to the right and back
    {300, -25, kmh(80)},       //
    {200, 0, kmh(40)},         //
    {140, 90, kmh(40)},        //
    {0, 0, kmh(60)},           // closes north and south
    {300, 0, kmh(30)},         //
    {90, 90, kmh(30)},         //
    {200, 0, kmh(80)},         //
    {0, 0, kmh(80)},           // closes east and west
    {320, 90, kmh(50)},        //
    {100, 0, 0, false, 20},    // the stop: 20 s at a traffic light
    {120, 0, kmh(50)},         // away from it
}};
constexpr double start_heading = 17;
constexpr double start_latitude = 46.9480;
constexpr double start_longitude = 7.4474;
constexpr double start_altitude = 541.0;
constexpr double geoid = 49.6;

// WGS84: metres of one radian to the north and to the east at the start. The course is small enough
// for one tangent plane.
constexpr double semi_major = 6378137.0;
constexpr double eccentricity_squared = 6.69437999014e-3;

struct Radii {
  double north;
  double east;
};
Radii radii() {
  const double sine = std::sin(radians(start_latitude));
  const double w = std::sqrt(1 - eccentricity_squared * sine * sine);
  return {semi_major * (1 - eccentricity_squared) / (w * w * w),
          semi_major / w * std::cos(radians(start_latitude))};
}

/// Part of a bend's turn that is done after part `u` of its length. The curvature rises and falls
/// smoothly, as a driver steers.
double turned(double u) {
  return u - std::sin(2 * pi * u) / (2 * pi);
}
double steering(double u) {
  return 1 - std::cos(2 * pi * u);
}

using Matrix = std::array<std::array<double, 4>, 4>;

/// Gauss-Jordan; for matrices that need no exchange of rows, as those of normal equations.
Matrix inverse_of(Matrix matrix) {
  Matrix inverse{};
  for (std::size_t i = 0; i < 4; ++i)
    inverse[i][i] = 1;
  for (std::size_t i = 0; i < 4; ++i) {
    const double pivot = matrix[i][i];
    for (std::size_t j = 0; j < 4; ++j) {
      matrix[i][j] /= pivot;
      inverse[i][j] /= pivot;
    }
    for (std::size_t row = 0; row < 4; ++row) {
      if (row == i) continue;
      const double factor = matrix[row][i];
      for (std::size_t j = 0; j < 4; ++j) {
        matrix[row][j] -= factor * matrix[i][j];
        inverse[row][j] -= factor * inverse[i][j];
      }
    }
  }
  return inverse;
}

/// Adds what a satellite contributes to the normal equations.
void add_direction(Matrix& normal, const Satellite& satellite) {
  const double elevation = radians(satellite.elevation);
  const double azimuth = radians(satellite.azimuth);
  const std::array<double, 4> row{std::cos(elevation) * std::sin(azimuth),
                                  std::cos(elevation) * std::cos(azimuth), std::sin(elevation), 1};
  for (std::size_t i = 0; i < 4; ++i) {
    for (std::size_t j = 0; j < 4; ++j)
      normal[i][j] += row[i] * row[j];
  }
}

/// A satellite's way over the sky takes some hours. Golden steps spread the ways evenly for any
/// count of satellites.
Satellite satellite_at(std::size_t index, double seconds, bool in_sight) {
  const double spread = wrapped(static_cast<double>(index + 1) * std::numbers::phi, 1);
  const double period = 3600 * (5 + 3 * spread);
  const double wave = std::sin(pi * (seconds / period + spread));
  Satellite satellite;
  satellite.system = static_cast<Gnss_system>(index % 4);
  satellite.id = static_cast<std::uint16_t>(index / 4 + 1);
  satellite.elevation = 6 + 80 * wave * wave;
  satellite.azimuth = wrapped(360 * (static_cast<double>(index) * 0.381966 + spread / 7) +
                                  (index % 2 == 0 ? 1 : -1) * seconds / period * 180,
                              360);
  if (in_sight && satellite.elevation >= 9) {
    satellite.signal = 24 + 24 * std::sin(radians(satellite.elevation)) +
                       std::sin(seconds / 7 + static_cast<double>(index));
    satellite.in_use = satellite.elevation >= 15;
  }
  return satellite;
}

constexpr double fix_delay_2d = 1.0;  ///< seconds from the tunnel's end to a fix in two dimensions
constexpr double fix_delay_3d = 3.0;  ///< and in three

}  // namespace

Course::Course() {
  const auto lay_out = [this](double closing_1, double closing_2) {
    legs_.clear();
    Leg leg{};
    leg.heading = start_heading;
    leg.speed_in = plan.back().speed_out;
    const auto add = [&](double length, double turn, double speed_out, double duration,
                         bool tunnel) {
      leg.length = length;
      leg.turn = turn;
      leg.speed_out = speed_out;
      leg.duration = duration;
      leg.tunnel = tunnel;
      legs_.push_back(leg);
      leg.origin = leg.point_at(length);
      leg.start += length;
      leg.heading += turn;
      leg.speed_in = speed_out;
      leg.start_time += duration;
    };
    for (std::size_t index = 0; index < plan.size(); ++index) {
      const Plan& part = plan[index];
      double length = part.length;
      if (index == closing_leg_1) length = closing_1;
      if (index == closing_leg_2) length = closing_2;
      const double mean = (leg.speed_in + part.speed_out) / 2;
      add(length, part.turn, part.speed_out, length / mean, part.tunnel);
      if (part.dwell > 0) add(0, 0, 0, part.dwell, false);
    }
    end_ = leg.origin;
    length_ = leg.start;
    lap_seconds_ = leg.start_time;
  };

  // Laid out without the two closing straights, the round ends beside its beginning; their
  // directions are at right angles, so each takes its part of the gap.
  lay_out(0, 0);
  const Point gap = end_;
  const auto along = [&](double heading) {
    return -(gap.east * std::sin(radians(heading)) + gap.north * std::cos(radians(heading)));
  };
  lay_out(along(legs_[closing_leg_1].heading), along(legs_[closing_leg_2].heading));

  for (const auto& leg : legs_) {
    if (!leg.tunnel) continue;
    tunnel_in_ = leg.start_time;
    tunnel_out_ = leg.start_time + leg.duration;
  }
}

std::chrono::nanoseconds Course::lap_time() const {
  return std::chrono::nanoseconds(std::llround(lap_seconds_ * 1e9));
}

const Course::Leg& Course::leg_at(double lap_seconds) const {
  const auto behind =
      std::upper_bound(legs_.begin(), legs_.end(), lap_seconds,
                       [](double time, const Leg& leg) { return time < leg.start_time; });
  return *std::prev(behind);
}

Course::Point Course::Leg::point_at(double along) const {
  if (turn == 0) {
    return {origin.east + along * std::sin(radians(heading)),
            origin.north + along * std::cos(radians(heading))};
  }
  // Simpson's rule over the bend so far.
  constexpr int steps = 64;
  const double step = along / steps;
  double east = 0;
  double north = 0;
  for (int index = 0; index <= steps; ++index) {
    const double weight = index == 0 || index == steps ? 1 : (index % 2 == 1 ? 4 : 2);
    const double direction = radians(heading + turn * turned(index * step / length));
    east += weight * std::sin(direction);
    north += weight * std::cos(direction);
  }
  return {origin.east + east * step / 3, origin.north + north * step / 3};
}

double Course::altitude_at(double distance) const {
  const double phase = 2 * pi * distance / length_;
  return start_altitude + 18 * (1 - std::cos(phase)) + 4 * std::sin(3 * phase);
}

double Course::slope_at(double distance) const {
  const double phase = 2 * pi * distance / length_;
  return (18 * std::sin(phase) + 12 * std::cos(3 * phase)) * 2 * pi / length_;
}

Fix_type Course::fix_at(double lap_seconds) const {
  if (lap_seconds < tunnel_in_ || lap_seconds >= tunnel_out_ + fix_delay_3d) {
    return Fix_type::three_dimensional;
  }
  return lap_seconds < tunnel_out_ + fix_delay_2d ? Fix_type::none : Fix_type::two_dimensional;
}

Sample Course::sample(std::chrono::nanoseconds time) const {
  const double lap_seconds = wrapped(std::chrono::duration<double>(time).count(), lap_seconds_);
  const Leg& leg = leg_at(lap_seconds);
  const double seconds = lap_seconds - leg.start_time;
  const double acceleration = (leg.speed_out - leg.speed_in) / leg.duration;
  const double along = leg.speed_in * seconds + acceleration * seconds * seconds / 2;

  Sample sample;
  sample.fix = fix_at(lap_seconds);
  sample.speed = leg.speed_in + acceleration * seconds;
  const double part = leg.length > 0 ? along / leg.length : 0;
  sample.heading = wrapped(leg.heading + leg.turn * turned(part), 360);
  sample.yaw_rate = leg.length > 0 ? leg.turn / leg.length * steering(part) * sample.speed : 0;

  const Point point = leg.point_at(along);
  const Radii earth = radii();
  sample.latitude = start_latitude + degrees(point.north / earth.north);
  sample.longitude = start_longitude + degrees(point.east / earth.east);
  sample.altitude_msl = altitude_at(leg.start + along);
  const double slope = slope_at(leg.start + along);
  sample.climb = slope * sample.speed;
  sample.pitch = degrees(std::atan(slope));
  sample.geoid_separation = geoid;

  // Dead reckoning drifts while nothing corrects it.
  const double blind = sample.fix == Fix_type::none ? lap_seconds - tunnel_in_ : 0;
  sample.dr_accuracy = 0.8 + 0.08 * blind;
  sample.dr_heading_accuracy = 0.3 + 0.02 * blind;
  return sample;
}

Sky Course::sky(std::chrono::nanoseconds time, std::size_t count) const {
  const double seconds = std::chrono::duration<double>(time).count();
  const Fix_type fix = fix_at(wrapped(seconds, lap_seconds_));
  count = std::min(count, max_satellites);

  Sky sky;
  sky.satellites.reserve(count);
  Matrix normal{};  // of the least-squares solution: east, north, up and clock
  for (std::size_t index = 0; index < count; ++index) {
    const Satellite satellite = satellite_at(index, seconds, fix != Fix_type::none);
    if (satellite.signal > 0) ++sky.tracked;
    if (satellite.in_use) {
      ++sky.in_use;
      add_direction(normal, satellite);
    }
    sky.satellites.push_back(satellite);
  }
  if (sky.in_use < 4) return sky;

  // Four satellites spread as above are never in one plane with the vehicle.
  const Matrix inverse = inverse_of(normal);
  const double horizontal = inverse[0][0] + inverse[1][1];
  sky.hdop = std::sqrt(horizontal);
  sky.vdop = std::sqrt(inverse[2][2]);
  sky.pdop = std::sqrt(horizontal + inverse[2][2]);
  sky.gdop = std::sqrt(horizontal + inverse[2][2] + inverse[3][3]);
  constexpr double range_error = 1.6;
  sky.horizontal_accuracy = sky.hdop * range_error;
  sky.vertical_accuracy = sky.vdop * range_error;
  return sky;
}

}  // namespace drive
