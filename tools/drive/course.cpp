#include "tools/drive/course.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "tools/from_seconds.h"

namespace drive {
namespace {

using std::numbers::pi;

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

constexpr double fix_delay_2d = 1.0;  ///< seconds from the tunnel's end to a fix in two dimensions
constexpr double fix_delay_3d = 3.0;  ///< and in three
/// Seconds in which a fix corrects the error of dead reckoning.
constexpr double correction_time = 5;

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
      const auto surroundings = surroundings_of(part.speed_out, part.tunnel);
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
  return tools::from_seconds(lap_seconds_);
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
  return Sky::at(seconds, std::min(count, max_satellites),
                 fix_at(lap_seconds_of(seconds)) != Fix_type::none);
}

}  // namespace drive
