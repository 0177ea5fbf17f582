/// A synthetic drive for desks without a receiver, the same at every run. It returns any instant of
/// a route or of a closed course with straights, bends both ways, hills, a tunnel and a stop.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "tools/drive/geometry.h"
#include "tools/drive/route.h"
#include "tools/drive/sky.h"

namespace drive {

enum class Fix_type : std::uint8_t { none, two_dimensional, three_dimensional };

/// What a receiver with dead reckoning knows at one instant. The GNSS-only quantities mean
/// something while `fix` is not `none`; the others always.
struct Sample {
  Fix_type fix = Fix_type::none;
  double latitude = 0;             ///< degrees
  double longitude = 0;            ///< degrees
  double altitude_msl = 0;         ///< metres
  double geoid_separation = 0;     ///< metres
  double heading = 0;              ///< degrees from north, [0, 360)
  double speed = 0;                ///< metres per second, horizontal
  double climb = 0;                ///< metres per second, up positive
  double yaw_rate = 0;             ///< degrees per second, to the right positive
  double pitch = 0;                ///< degrees, nose up positive
  double dr_accuracy = 0;          ///< metres, one sigma, horizontal: grows in the tunnel
  double dr_heading_accuracy = 0;  ///< degrees, one sigma
  Surroundings surroundings = Surroundings::open;

  /// What dead reckoning has gone through without satellites, until it is corrected.
  struct Blind {
    double seconds = 0;
    double metres = 0;
    double share = 0;         ///< of the error that is still there: 0 to 1
    std::uint64_t index = 0;  ///< of the tunnel, counted from the start of the drive
  } blind;
};

class Course {
 public:
  /// The closed course.
  Course();
  /// Follows the points of `route` at their speeds, or at `speed` in m/s, from standstill to
  /// standstill. It slows down for bends. Throws std::invalid_argument for a route without a way.
  Course(const Route& route, double speed);

  /// How long one round or the route takes.
  [[nodiscard]] std::chrono::nanoseconds lap_time() const;

  /// The vehicle at `time` since the start of the drive. The closed course repeats after
  /// lap_time(), and negative times lie in earlier rounds. At the end of a route, the vehicle
  /// stands.
  [[nodiscard]] Sample sample(std::chrono::nanoseconds time) const;

  /// The sky at `time` with `count` satellites in view, 0 to max_satellites.
  [[nodiscard]] Sky sky(std::chrono::nanoseconds time, std::size_t count) const;
  static constexpr std::size_t max_satellites = 60;

 private:
  /// A part of the course with one turn and one acceleration.
  struct Leg {
    double start = 0;       ///< metres from the start of the round
    double length = 0;      ///< metres; 0: a stop
    double turn = 0;        ///< degrees over the whole leg, to the right positive
    double heading = 0;     ///< degrees at its beginning, not reduced
    double speed_in = 0;    ///< metres per second
    double speed_out = 0;   ///< metres per second
    double start_time = 0;  ///< seconds from the start of the round
    double duration = 0;    ///< seconds
    Surroundings surroundings = Surroundings::open;
    Place place;  ///< its beginning
    Radii earth;

    /// The way to the point `along` metres from its beginning.
    [[nodiscard]] Offset way(double along) const;
    /// Metres from its beginning after `seconds`.
    [[nodiscard]] double distance(double seconds) const;
  };
  /// A leg of a route before its speeds are known.
  struct Stretch;
  /// An altitude of a route.
  struct Knot {
    double distance = 0;  ///< metres from the start
    double altitude = 0;
    double slope = 0;  ///< metres per metre
  };
  struct Tunnel {
    double in = 0;   ///< seconds from the start of the round
    double out = 0;  ///< seconds from the start of the round
  };
  struct Height {
    double altitude = 0;
    double slope = 0;
  };

  [[nodiscard]] double lap_seconds_of(double seconds) const;
  [[nodiscard]] const Leg& leg_at(double lap_seconds) const;
  [[nodiscard]] double distance_at(double lap_seconds) const;
  [[nodiscard]] Fix_type fix_at(double lap_seconds) const;
  [[nodiscard]] Sample::Blind blind_at(double lap_seconds, double seconds) const;
  [[nodiscard]] Height height_at(double distance) const;
  [[nodiscard]] std::vector<Stretch> lay_out(const std::vector<Route_point>& points, double speed);
  void add_leg(Leg leg, double length, double speed_in, double speed_out);
  void find_tunnels();

  bool closed_ = true;
  std::vector<Leg> legs_;
  std::vector<Knot> knots_;  ///< empty: hills of the closed course
  std::vector<Tunnel> tunnels_;
  double geoid_separation_ = 0;
  double length_ = 0;
  double lap_seconds_ = 0;
};

}  // namespace drive
