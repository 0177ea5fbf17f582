/// The NMEA 0183 sentences that the reader understands, as values.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <variant>

#include "tools/nmea/Fix.h"
#include "tools/nmea/Framer.h"

namespace nmea {

/// Who speaks: one system's receiver, or `combined` (GN) for a solution over several systems.
enum class Talker : std::uint8_t { gps, glonass, galileo, beidou, qzss, navic, combined };
inline constexpr std::size_t talker_count = 7;

/// In the order in which they are believed when two of one instant say the same thing.
enum class Navigation_type : std::uint8_t { gga, gns, rmc, gll, vtg, zda };
inline constexpr std::size_t navigation_type_count = 6;

/// GGA, GNS, RMC, GLL, VTG or ZDA; what the sentence does not say is absent.
struct Navigation {
  Navigation_type type{};
  Talker talker{};
  std::optional<std::chrono::nanoseconds> time_of_day;
  std::optional<std::chrono::year_month_day> date;
  std::optional<bool> valid;
  std::optional<Coordinates> position;
  std::optional<Fix_quality> quality;
  std::optional<unsigned> satellites_in_use;
  std::optional<double> hdop;
  std::optional<double> altitude_msl;
  std::optional<double> geoid_separation;
  std::optional<double> speed;   ///< metres per second
  std::optional<double> course;  ///< degrees true
};

/// GSA: satellites in use and dilution of precision.
struct Active_satellites {
  struct Used {
    Gnss_system system{};
    std::uint16_t id = 0;
    friend bool operator==(const Used&, const Used&) = default;
  };
  std::optional<Fix_dimension> dimension;
  std::array<Used, 12> used{};
  std::size_t used_count = 0;
  std::optional<double> pdop;
  std::optional<double> hdop;
  std::optional<double> vdop;
};

/// GSV: one sentence of a group that lists the satellites in view.
struct Satellites_in_view {
  Talker talker{};
  std::uint8_t signal = 0;  ///< 0 when the sentence does not say
  unsigned total = 0;       ///< sentences of the group, 1..9
  unsigned number = 0;      ///< this one, 1..total
  unsigned in_view = 0;
  std::array<Satellite, 4> satellites{};
  std::size_t satellite_count = 0;
};

using Sentence = std::variant<Navigation, Active_satellites, Satellites_in_view>;

/// Verifies the checksum of `line` (as Framer::next() returns it) and reads its fields. Nothing
/// when it is faulty or not one of ours: then the reason is counted. A sentence with one bad field
/// is dropped whole.
[[nodiscard]] std::optional<Sentence> parse(std::string_view line, Counters& counters);

}  // namespace nmea
