/// The course along a route.
#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "tools/drive/course.h"

namespace drive {
namespace {

constexpr double max_cut = 4;        ///< metres from a corner to the middle of its bend
constexpr double least_turn = 0.02;  ///< degrees
constexpr double max_slope = 0.3;

struct Bend {
  double turn = 0;    ///< degrees
  double length = 0;  ///< metres; 0: the vehicle drives straight on
  double ahead = 0;   ///< metres from its beginning to the corner
};

/// The bend at `corner`. The vehicle arrives along `in` and leaves towards `next`. A corner that is
/// too sharp becomes a turn behind its point.
Bend bend_at(const Place& corner, const Place& next, const Offset& in, double limit) {
  const double heading = in.direction();
  const auto earth = Radii::at(corner.latitude);
  const auto out = corner.to(next, earth);
  Bend bend{.turn = turn_between(heading, out.direction())};
  if (std::abs(bend.turn) > max_corner) {
    // Which direction leads to the next point depends on where the turn ends.
    bend.length = 1.2 * min_bend_length(bend.turn);
    for (int trial = 0; trial < 8; ++trial) {
      const auto way = Unit_bend::way(heading, bend.turn, 1);
      const auto end = corner.moved({way.east * bend.length, way.north * bend.length}, earth);
      bend.turn += turn_between(heading + bend.turn, end.to(next, earth).direction());
    }
  } else if (std::abs(bend.turn) >= least_turn) {
    const double turn = std::abs(radians(bend.turn));
    const double share = Unit_bend::corner_distance(bend.turn);
    const double wanted = 2 * turn * limit * limit / lateral_limit;
    const double least = min_bend_length(bend.turn);
    const double most = std::max(least, max_cut / std::tan(turn / 4) / share);
    const double room = 0.98 * std::min(in.length(), out.length() / 2) / share;
    bend.length = std::min(std::clamp(wanted, least, most), room);
    bend.ahead = bend.length * share;
  }
  return bend;
}

}  // namespace

struct Course::Stretch {
  Leg leg;           ///< its speeds and times are open
  double limit = 0;  ///< metres per second
  double dwell = 0;  ///< seconds, at its beginning
};

/// The vehicle drives straight to the bend before each point.
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
    leg.surroundings = surroundings_of(limit, points[index - 1].tunnel);
    const auto in = leg.place.to(place_of(index), Radii::at(leg.place.latitude));
    const double heading = in.direction();
    if (index + 1 == points.size()) {
      add(heading, in.length(), 0, limit, dwell);
      knots_.push_back({leg.start, points[index].altitude.value_or(knots_.back().altitude), 0});
      break;
    }
    const double limit_behind = std::min(limit, points[index].speed.value_or(speed));
    const auto bend = bend_at(place_of(index), place_of(index + 1), in, limit_behind);
    add(heading, in.length() - bend.ahead, 0, limit, dwell);
    dwell = points[index].dwell;
    knots_.push_back(
        {leg.start + bend.length / 2, points[index].altitude.value_or(knots_.back().altitude), 0});
    if (bend.length > 0) {
      const double bend_limit =
          std::sqrt(lateral_limit * bend.length / (2 * std::abs(radians(bend.turn))));
      add(heading, bend.length, bend.turn, std::min(limit_behind, bend_limit), dwell);
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

}  // namespace drive
