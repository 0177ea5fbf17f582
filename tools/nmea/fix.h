/// The report of a receiver about one instant, in whatever protocol: the result of every reader.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

namespace nmea {

using Utc_time = std::chrono::sys_time<std::chrono::nanoseconds>;

struct Coordinates {
  double latitude =
      0;  ///< degrees, north positive; the double nearest to the printed decimal value
  double longitude = 0;  ///< degrees, east positive
  friend bool operator==(const Coordinates&, const Coordinates&) = default;
};

/// How the position was found; the numbers of GGA's quality field.
enum class Fix_quality : std::uint8_t {
  none = 0,
  autonomous = 1,
  differential = 2,
  precise = 3,
  rtk_fixed = 4,
  rtk_float = 5,
  estimated = 6,
  manual = 7,
  simulated = 8,
};

/// The numbers of GSA's fix field.
enum class Fix_dimension : std::uint8_t { none = 1, two = 2, three = 3 };

enum class Gnss_system : std::uint8_t { unknown, gps, glonass, galileo, beidou, qzss, navic, sbas };

struct Satellite {
  Gnss_system system = Gnss_system::unknown;
  std::uint16_t id = 0;             ///< within its system
  std::optional<double> elevation;  ///< degrees, -90..90
  std::optional<double> azimuth;    ///< degrees from north, [0, 360)
  std::optional<double> signal;     ///< carrier to noise density, dBHz; absent: not tracked
  bool in_use = false;
  friend bool operator==(const Satellite&, const Satellite&) = default;
};

/// Adds one signal of a satellite to a list that holds each satellite once, with its strongest
/// signal.
void add_signal(std::vector<Satellite>& satellites, const Satellite& satellite);

enum class Antenna : std::uint8_t { unknown, ok, open, short_circuit };

/// A quantity that the receiver does not send for the instant is absent.
struct Fix {
  /// False: there is no receiver at this instant.
  bool present = true;

  /// The instant's position has been returned before: only satellites and quality are new.
  bool supplement = false;

  /// Known without `utc` until a sentence carries the date; later fixes keep that date.
  std::optional<std::chrono::nanoseconds> time_of_day;
  std::optional<Utc_time> utc;

  /// False: the receiver itself marks position, speed and course as not to be used.
  bool valid = false;
  std::optional<Coordinates> position;
  std::optional<double> altitude_msl;         ///< metres
  std::optional<double> altitude_ellipsoid;   ///< metres, WGS84; absent: see altitude_wgs84()
  std::optional<double> geoid_separation;     ///< metres, WGS84 ellipsoid to mean sea level
  std::optional<double> speed;                ///< metres per second over ground
  std::optional<double> climb;                ///< metres per second, up positive
  std::optional<double> course;               ///< degrees from true north
  std::optional<double> accuracy_horizontal;  ///< metres, one sigma
  std::optional<double> accuracy_vertical;    ///< metres, one sigma
  std::optional<double> accuracy_speed;       ///< metres per second, one sigma
  std::optional<double> accuracy_climb;       ///< metres per second, one sigma
  std::optional<double> accuracy_course;      ///< degrees, one sigma
  std::optional<double> age_of_corrections;   ///< seconds; absent when none are in use

  // Measured without a position too.
  std::optional<double> heading;           ///< degrees from true north, where the vehicle points
  std::optional<double> heading_accuracy;  ///< degrees, one sigma
  std::optional<double> pitch;             ///< degrees, nose up positive
  std::optional<double> roll;              ///< degrees, right side down positive
  std::optional<double> yaw_rate;          ///< degrees per second, to the right positive
  std::optional<double> pitch_rate;        ///< degrees per second, nose up positive
  std::optional<double> roll_rate;         ///< degrees per second, right side down positive
  std::optional<Antenna> antenna;

  std::optional<Fix_quality> quality;
  std::optional<Fix_dimension> dimension;
  std::optional<double> gdop;
  std::optional<double> pdop;
  std::optional<double> hdop;
  std::optional<double> vdop;

  /// The larger of the counted (GGA, GNS) and the listed (GSA) satellites: some receivers stop
  /// counting at 12, some count one system only.
  std::optional<unsigned> satellites_in_use;
  std::optional<unsigned> satellites_in_view;
  std::optional<unsigned> satellites_tracked;
  /// In the order of the sentences, each satellite once (with its strongest signal); absent when
  /// the instant brought no complete list.
  std::optional<std::vector<Satellite>> satellites;

  /// Metres above the WGS84 ellipsoid.
  [[nodiscard]] std::optional<double> altitude_wgs84() const {
    if (altitude_ellipsoid) return altitude_ellipsoid;
    if (!altitude_msl || !geoid_separation) return std::nullopt;
    return *altitude_msl + *geoid_separation;
  }

  friend bool operator==(const Fix&, const Fix&) = default;
};

}  // namespace nmea
