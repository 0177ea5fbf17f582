/// A synthetic drive for desks without a receiver: a closed course with straights, bends both ways,
/// hills, a tunnel and a stop, the same at every run, that can be asked for any instant.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

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
};

enum class Gnss_system : std::uint8_t { gps, glonass, galileo, beidou };

struct Satellite {
  Gnss_system system{};
  std::uint16_t id = 0;  ///< within its system
  double elevation = 0;  ///< degrees
  double azimuth = 0;    ///< degrees, [0, 360)
  double signal = 0;     ///< dBHz; 0: not tracked
  bool in_use = false;
};

/// The sky at one instant and the quality that its geometry gives. Dilutions are 0 without a fix.
struct Sky {
  std::vector<Satellite> satellites;
  unsigned tracked = 0;
  unsigned in_use = 0;
  double gdop = 0;
  double pdop = 0;
  double hdop = 0;
  double vdop = 0;
  double horizontal_accuracy = 0;  ///< metres, one sigma
  double vertical_accuracy = 0;    ///< metres, one sigma
};

class Course {
 public:
  Course();

  /// How long one round takes.
  [[nodiscard]] std::chrono::nanoseconds lap_time() const;

  /// The vehicle at `time` since the start of the drive, which repeats after lap_time(). Negative
  /// times lie in earlier rounds.
  [[nodiscard]] Sample sample(std::chrono::nanoseconds time) const;

  /// The sky at `time` with `count` satellites in view, 0 to max_satellites.
  [[nodiscard]] Sky sky(std::chrono::nanoseconds time, std::size_t count) const;
  static constexpr std::size_t max_satellites = 60;

 private:
  struct Point {
    double east = 0;   ///< metres from the start
    double north = 0;  ///< metres from the start
  };
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
    bool tunnel = false;
    Point origin;  ///< its beginning

    /// The point `along` metres from its beginning.
    [[nodiscard]] Point point_at(double along) const;
  };

  [[nodiscard]] const Leg& leg_at(double lap_seconds) const;
  [[nodiscard]] Fix_type fix_at(double lap_seconds) const;
  [[nodiscard]] double altitude_at(double distance) const;
  [[nodiscard]] double slope_at(double distance) const;

  std::vector<Leg> legs_;
  Point end_;
  double length_ = 0;
  double lap_seconds_ = 0;
  double tunnel_in_ = 0;   ///< seconds from the start of the round
  double tunnel_out_ = 0;  ///< seconds from the start of the round
};

}  // namespace drive
