#include "tools/drive/drive.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <stdexcept>

namespace drive {
namespace {

using std::numbers::pi;

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
/// Seconds in which a fix corrects the error of dead reckoning.
constexpr double correction_time = 5;
constexpr double street_speed = kmh(50);  ///< up to this speed a road of a route is a street
constexpr double max_cut = 4;             ///< metres from a corner to the middle of its bend
constexpr double least_turn = 0.02;       ///< degrees
constexpr double max_slope = 0.3;

}  // namespace

Course::Course() {
  geoid_separation_ = geoid;
  const auto earth = Radii::at(start_latitude);
  // Returns the way from the beginning to the end.
  const auto lay_out = [this, &earth](double closing_1, double closing_2) {
    legs_.clear();
    Leg leg{};
    leg.heading = start_heading;
    leg.speed_in = plan.back().speed_out;
    leg.place = {start_latitude, start_longitude};
    leg.earth = earth;
    Offset end;
    const auto add = [&](double length, double turn, double speed_out, double duration,
                         Surroundings surroundings) {
      leg.length = length;
      leg.turn = turn;
      leg.speed_out = speed_out;
      leg.duration = duration;
      leg.surroundings = surroundings;
      legs_.push_back(leg);
      const auto way = leg.way(length);
      end = {end.east + way.east, end.north + way.north};
      leg.place = Place{start_latitude, start_longitude}.moved(end, earth);
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
      const auto surroundings = part.tunnel                      ? Surroundings::tunnel
                                : part.speed_out <= street_speed ? Surroundings::street
                                                                 : Surroundings::open;
      add(length, part.turn, part.speed_out, length / mean, surroundings);
      if (part.dwell > 0) add(0, 0, 0, part.dwell, surroundings);
    }
    length_ = leg.start;
    lap_seconds_ = leg.start_time;
    return end;
  };

  // Laid out without the two closing straights, the round ends beside its beginning; their
  // directions are at right angles, so each takes its part of the gap.
  const Offset gap = lay_out(0, 0);
  const auto along = [&](double heading) {
    return -(gap.east * std::sin(radians(heading)) + gap.north * std::cos(radians(heading)));
  };
  lay_out(along(legs_[closing_leg_1].heading), along(legs_[closing_leg_2].heading));
  find_tunnels();
}

struct Course::Stretch {
  Leg leg;           ///< its speeds and times are open
  double limit = 0;  ///< metres per second
  double dwell = 0;  ///< seconds, at its beginning
};

/// The vehicle drives straight to the bend before each point. A corner that is too sharp becomes a
/// turn behind its point.
std::vector<Course::Stretch> Course::lay_out(const std::vector<Route_point>& points, double speed) {
  std::vector<Stretch> stretches;
  const auto place_of = [&](std::size_t index) {
    return Place{points[index].latitude, points[index].longitude};
  };
  Leg leg{};
  leg.place = place_of(0);
  const auto add = [&](double heading, double length, double turn, double limit, double dwell) {
    leg.earth = Radii::at(leg.place.latitude);
    leg.heading = heading;
    leg.length = length;
    leg.turn = turn;
    stretches.push_back({leg, limit, dwell});
    leg.place = leg.place.moved(leg.way(length), leg.earth);
    leg.start += length;
  };
  double dwell = points[0].dwell;
  knots_.push_back({0, points[0].altitude.value_or(0), 0});
  for (std::size_t index = 1; index < points.size(); ++index) {
    const double limit = points[index - 1].speed.value_or(speed);
    leg.surroundings = points[index - 1].tunnel ? Surroundings::tunnel
                       : limit <= street_speed  ? Surroundings::street
                                                : Surroundings::open;
    const auto in = leg.place.to(place_of(index), Radii::at(leg.place.latitude));
    const double heading = in.direction();
    if (index + 1 == points.size()) {
      add(heading, in.length(), 0, limit, dwell);
      knots_.push_back({leg.start, points[index].altitude.value_or(knots_.back().altitude), 0});
      break;
    }
    const auto earth = Radii::at(points[index].latitude);
    const auto out = place_of(index).to(place_of(index + 1), earth);
    double turn = turn_between(heading, out.direction());
    const double limit_behind = std::min(limit, points[index].speed.value_or(speed));
    double bend = 0;
    double corner = 0;
    if (std::abs(turn) > max_corner) {
      // Which direction leads to the next point depends on where the turn ends.
      bend = 1.2 * min_bend_length(turn);
      for (int trial = 0; trial < 8; ++trial) {
        const auto way = Unit_bend::way(heading, turn, 1);
        const auto end = place_of(index).moved({way.east * bend, way.north * bend}, earth);
        const auto change =
            turn_between(heading + turn, end.to(place_of(index + 1), earth).direction());
        turn += change;
      }
    } else if (std::abs(turn) >= least_turn) {
      const double share = Unit_bend::corner_distance(turn);
      const double wanted =
          2 * std::abs(radians(turn)) * limit_behind * limit_behind / lateral_limit;
      const double least = min_bend_length(turn);
      const double most = std::max(least, max_cut / std::tan(std::abs(radians(turn)) / 4) / share);
      const double room = 0.98 * std::min(in.length(), out.length() / 2) / share;
      bend = std::min(std::clamp(wanted, least, most), room);
      corner = bend * share;
    }
    add(heading, in.length() - corner, 0, limit, dwell);
    dwell = points[index].dwell;
    knots_.push_back(
        {leg.start + bend / 2, points[index].altitude.value_or(knots_.back().altitude), 0});
    if (bend > 0) {
      const double bend_limit = std::sqrt(lateral_limit * bend / (2 * std::abs(radians(turn))));
      add(heading, bend, turn, std::min(limit_behind, bend_limit), dwell);
      dwell = 0;
    }
  }
  return stretches;
}

Course::Course(const Route& route, double speed) : closed_(false) {
  const auto points = drivable(route.points);
  if (points.size() < 2) {
    throw std::invalid_argument("the route has no two points that a vehicle can drive between");
  }
  geoid_separation_ = route.geoid_separation;
  const auto stretches = lay_out(points, speed);

  // Speeds between the stretches: what both allow, from standstill to standstill.
  std::vector<double> nodes(stretches.size() + 1, 0);
  for (std::size_t index = 1; index < stretches.size(); ++index) {
    if (stretches[index].dwell == 0) {
      nodes[index] = std::min(stretches[index - 1].limit, stretches[index].limit);
    }
  }
  const auto reachable = [](double from, double acceleration, double length) {
    return std::sqrt(from * from + 2 * acceleration * length);
  };
  for (std::size_t index = 0; index < stretches.size(); ++index) {
    nodes[index + 1] = std::min(
        nodes[index + 1], reachable(nodes[index], acceleration_limit, stretches[index].leg.length));
  }
  for (std::size_t index = stretches.size(); index-- > 0;) {
    nodes[index] = std::min(
        nodes[index], reachable(nodes[index + 1], braking_limit, stretches[index].leg.length));
  }

  for (std::size_t index = 0; index < stretches.size(); ++index) {
    const auto& [leg, limit, dwell] = stretches[index];
    const double in = nodes[index];
    const double out = nodes[index + 1];
    if (dwell > 0) {
      add_leg(leg, 0, 0, 0);
      legs_.back().duration = dwell;
      lap_seconds_ += dwell;
    }
    if (leg.turn != 0) {
      add_leg(leg, leg.length, in, out);
      continue;
    }
    // Speeds up, keeps the speed, brakes.
    const double peak =
        std::min(limit, std::sqrt((2 * acceleration_limit * braking_limit * leg.length +
                                   braking_limit * in * in + acceleration_limit * out * out) /
                                  (acceleration_limit + braking_limit)));
    const double up = std::max(0.0, (peak * peak - in * in) / (2 * acceleration_limit));
    const double down = std::max(0.0, (peak * peak - out * out) / (2 * braking_limit));
    add_leg(leg, up, in, peak);
    add_leg(leg, leg.length - up - down, peak, peak);
    add_leg(leg, down, peak, out);
  }
  for (std::size_t index = 1; index + 1 < knots_.size(); ++index) {
    const auto& before = knots_[index - 1];
    const auto& behind = knots_[index + 1];
    knots_[index].slope = std::clamp(
        (behind.altitude - before.altitude) / std::max(behind.distance - before.distance, 1.0),
        -max_slope, max_slope);
  }
  find_tunnels();
}

/// Appends `leg`, or a part of a straight one that begins where the last part has ended.
void Course::add_leg(Leg leg, double length, double speed_in, double speed_out) {
  constexpr double least_length = 1e-6;
  const bool stands = length < least_length;
  if (stands && leg.length > 0 && speed_in + speed_out > 0) return;
  if (leg.turn == 0 && length_ > leg.start) {
    leg.place = leg.place.moved(leg.way(length_ - leg.start), leg.earth);
  }
  leg.start = length_;
  leg.length = stands ? 0 : length;
  if (stands) leg.turn = 0;
  leg.speed_in = speed_in;
  leg.speed_out = speed_out;
  leg.start_time = lap_seconds_;
  leg.duration = stands ? 0 : 2 * length / (speed_in + speed_out);
  legs_.push_back(leg);
  length_ += leg.length;
  lap_seconds_ += leg.duration;
}

void Course::find_tunnels() {
  for (const auto& leg : legs_) {
    if (leg.surroundings != Surroundings::tunnel) continue;
    if (tunnels_.empty() || tunnels_.back().out < leg.start_time) {
      tunnels_.push_back({leg.start_time, leg.start_time});
    }
    tunnels_.back().out = leg.start_time + leg.duration;
  }
}

std::chrono::nanoseconds Course::lap_time() const {
  return std::chrono::nanoseconds(std::llround(lap_seconds_ * 1e9));
}

double Course::lap_seconds_of(double seconds) const {
  return closed_ ? wrapped(seconds, lap_seconds_) : std::clamp(seconds, 0.0, lap_seconds_);
}

const Course::Leg& Course::leg_at(double lap_seconds) const {
  const auto behind =
      std::upper_bound(legs_.begin(), legs_.end(), lap_seconds,
                       [](double time, const Leg& leg) { return time < leg.start_time; });
  return *std::prev(behind);
}

Offset Course::Leg::way(double along) const {
  if (turn == 0) {
    return {along * std::sin(radians(heading)), along * std::cos(radians(heading))};
  }
  const auto unit = Unit_bend::way(heading, turn, along / length);
  return {unit.east * length, unit.north * length};
}

double Course::Leg::distance(double seconds) const {
  if (duration <= 0) return 0;
  const double time = std::min(seconds, duration);
  return speed_in * time + (speed_out - speed_in) / duration * time * time / 2;
}

double Course::distance_at(double lap_seconds) const {
  const Leg& leg = leg_at(lap_seconds);
  return leg.start + leg.distance(lap_seconds - leg.start_time);
}

Course::Height Course::height_at(double distance) const {
  if (knots_.empty()) {
    const double phase = 2 * pi * distance / length_;
    return {start_altitude + 18 * (1 - std::cos(phase)) + 4 * std::sin(3 * phase),
            (18 * std::sin(phase) + 12 * std::cos(3 * phase)) * 2 * pi / length_};
  }
  const auto behind =
      std::upper_bound(knots_.begin(), knots_.end(), distance,
                       [](double at, const Knot& knot) { return at < knot.distance; });
  if (behind == knots_.end()) return {knots_.back().altitude, 0};
  if (behind == knots_.begin()) return {knots_.front().altitude, 0};
  const auto& from = *std::prev(behind);
  const auto& to = *behind;
  // Hermite's cubic: altitude and slope are continuous.
  const double span = to.distance - from.distance;
  const double u = (distance - from.distance) / span;
  const double rise = to.altitude - from.altitude;
  const double a = from.slope * span;
  const double b = to.slope * span;
  return {from.altitude + u * (a + u * (3 * rise - 2 * a - b + u * (a + b - 2 * rise))),
          (a + u * (2 * (3 * rise - 2 * a - b) + 3 * u * (a + b - 2 * rise))) / span};
}

Fix_type Course::fix_at(double lap_seconds) const {
  for (const auto& tunnel : tunnels_) {
    if (lap_seconds < tunnel.in || lap_seconds >= tunnel.out + fix_delay_3d) continue;
    if (lap_seconds < tunnel.out + fix_delay_2d) return Fix_type::none;
    return Fix_type::two_dimensional;
  }
  return Fix_type::three_dimensional;
}

Sample::Blind Course::blind_at(double lap_seconds, double seconds) const {
  for (std::size_t index = 0; index < tunnels_.size(); ++index) {
    const auto& tunnel = tunnels_[index];
    const double end = std::min(tunnel.out + fix_delay_2d, lap_seconds_);
    if (lap_seconds < tunnel.in || lap_seconds >= end + correction_time) continue;
    const double until = std::min(lap_seconds, end);
    const double corrected = std::max(lap_seconds - end, 0.0) / correction_time;
    const auto lap = static_cast<std::int64_t>(std::floor(seconds / lap_seconds_));
    return {.seconds = until - tunnel.in,
            .metres = distance_at(until) - distance_at(tunnel.in),
            .share = (1 + std::cos(pi * corrected)) / 2,
            .index = static_cast<std::uint64_t>(lap) * tunnels_.size() + index};
  }
  return {};
}

Sample Course::sample(std::chrono::nanoseconds time) const {
  const double total = std::chrono::duration<double>(time).count();
  const double lap_seconds = lap_seconds_of(total);
  const Leg& leg = leg_at(lap_seconds);
  const double seconds = std::min(lap_seconds - leg.start_time, leg.duration);
  const double acceleration = leg.duration > 0 ? (leg.speed_out - leg.speed_in) / leg.duration : 0;
  const double along = leg.distance(seconds);

  Sample sample;
  sample.fix = fix_at(lap_seconds);
  sample.surroundings = leg.surroundings;
  sample.blind = blind_at(lap_seconds, total);
  sample.speed = leg.speed_in + acceleration * seconds;
  const double part = leg.length > 0 ? along / leg.length : 0;
  sample.heading = wrapped(leg.heading + leg.turn * Unit_bend::turned(part), 360);
  sample.yaw_rate =
      leg.length > 0 ? leg.turn / leg.length * Unit_bend::steering(part) * sample.speed : 0;

  const auto place = leg.place.moved(leg.way(along), leg.earth);
  sample.latitude = place.latitude;
  sample.longitude = place.longitude;
  const auto height = height_at(leg.start + along);
  sample.altitude_msl = height.altitude;
  sample.climb = height.slope * sample.speed;
  sample.pitch = degrees(std::atan(height.slope));
  sample.geoid_separation = geoid_separation_;

  // Dead reckoning drifts while nothing corrects it.
  const double blind = sample.fix == Fix_type::none ? sample.blind.seconds : 0;
  sample.dr_accuracy = 0.8 + 0.08 * blind;
  sample.dr_heading_accuracy = 0.3 + 0.02 * blind;
  return sample;
}

Sky Course::sky(std::chrono::nanoseconds time, std::size_t count) const {
  const double seconds = std::chrono::duration<double>(time).count();
  const Fix_type fix = fix_at(lap_seconds_of(seconds));
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
