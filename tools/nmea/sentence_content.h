/// The content of the NMEA 0183 sentences that the reader understands.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <variant>

#include "tools/nmea/fix.h"
#include "tools/nmea/satellite_number.h"

namespace nmea {

/// In the order in which they are believed when two of one instant say the same thing.
enum class Navigation_type : std::uint8_t { gga, gns, rmc, gll, vtg, pubx };
inline constexpr std::size_t navigation_type_count = 6;

/// GGA, GNS, RMC, GLL, VTG or PUBX,00; a quantity that the sentence does not carry is absent.
struct Navigation {
  Navigation_type type{};
  std::optional<std::chrono::nanoseconds> time_of_day;
  std::optional<std::chrono::year_month_day> date;
  std::optional<bool> valid;
  std::optional<Coordinates> position;
  std::optional<Fix_quality> quality;
  std::optional<unsigned> satellites_in_use;
  std::optional<double> hdop;
  std::optional<double> altitude_msl;
  std::optional<double> altitude_ellipsoid;
  std::optional<double> geoid_separation;
  std::optional<double> age_of_corrections;   ///< seconds
  std::optional<double> speed;                ///< metres per second
  std::optional<double> course;               ///< degrees true
  std::optional<double> climb;                ///< metres per second, up positive
  std::optional<double> accuracy_horizontal;  ///< metres, one sigma
  std::optional<double> accuracy_vertical;    ///< metres, one sigma
  std::optional<double> vdop;
  std::optional<Fix_dimension> dimension;
};

/// ZDA: time and date, which a receiver also sends without a position.
struct Clock {
  std::optional<std::chrono::nanoseconds> time_of_day;
  std::optional<std::chrono::year_month_day> date;
};

/// GST or GBS: the accuracy of a position.
struct Accuracy {
  std::optional<std::chrono::nanoseconds> time_of_day;
  std::optional<double> horizontal;  ///< metres, one sigma
  std::optional<double> vertical;    ///< metres, one sigma
};

/// HDT, THS or PASHR.
struct Attitude {
  std::optional<double> heading;           ///< degrees true
  std::optional<double> heading_accuracy;  ///< degrees, one sigma
  std::optional<double> pitch;             ///< degrees, nose up positive
  std::optional<double> roll;              ///< degrees, right side down positive
};

/// GSA: satellites in use and dilution of precision.
struct Active_satellites {
  static constexpr std::size_t max_used = 24;
  std::optional<Fix_dimension> dimension;
  std::array<Satellite_number, max_used> used{};
  std::size_t used_count = 0;
  std::optional<double> pdop;
  std::optional<double> hdop;
  std::optional<double> vdop;
};

/// GSV: one sentence of a group that lists the satellites in view.
struct Satellites_in_view {
  std::uint8_t signal = 0;  ///< 0 when the sentence does not say
  unsigned total = 0;       ///< sentences of the group
  unsigned number = 0;      ///< this one, 1..total
  unsigned in_view = 0;
  std::array<Satellite, 4> satellites{};
  std::size_t satellite_count = 0;
};

/// TXT: a message of the receiver about its antenna.
struct Text {
  Antenna antenna{};
};

using Content = std::
    variant<Navigation, Clock, Accuracy, Attitude, Active_satellites, Satellites_in_view, Text>;

}  // namespace nmea
