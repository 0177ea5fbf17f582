#include "tools/nmea/satellite_number.h"

#include <algorithm>
#include <array>

namespace nmea {
namespace {

struct Range {
  Talker talker;
  unsigned first;
  unsigned last;
  Gnss_system system;
  int shift;  ///< printed number to number within the system
};

/// The ranges of `combined` count for every talker whose own ranges do not hold the number.
constexpr std::array<Range, 18> ranges{{
    {Talker::glonass, 1, 32, Gnss_system::glonass, 0},
    {Talker::galileo, 1, 64, Gnss_system::galileo, 0},
    {Talker::galileo, 101, 164, Gnss_system::galileo, -100},
    {Talker::beidou, 1, 64, Gnss_system::beidou, 0},
    {Talker::qzss, 1, 10, Gnss_system::qzss, 192},
    {Talker::qzss, 183, 202, Gnss_system::qzss, 0},
    {Talker::navic, 1, 32, Gnss_system::navic, 0},
    {Talker::indoor, 1, 999, Gnss_system::unknown, 0},
    {Talker::combined, 1, 32, Gnss_system::gps, 0},
    {Talker::combined, 33, 64, Gnss_system::sbas, 87},
    {Talker::combined, 65, 99, Gnss_system::glonass, -64},
    {Talker::combined, 120, 158, Gnss_system::sbas, 0},
    {Talker::combined, 173, 182, Gnss_system::unknown, 0},
    {Talker::combined, 193, 200, Gnss_system::qzss, 0},
    {Talker::combined, 201, 264, Gnss_system::beidou, -200},
    {Talker::combined, 301, 364, Gnss_system::galileo, -300},
    {Talker::combined, 401, 464, Gnss_system::beidou, -400},
    {Talker::combined, 901, 932, Gnss_system::navic, -900},
}};

Gnss_system system_of(Talker talker) {
  switch (talker) {
    case Talker::gps:
      return Gnss_system::gps;
    case Talker::glonass:
      return Gnss_system::glonass;
    case Talker::galileo:
      return Gnss_system::galileo;
    case Talker::beidou:
      return Gnss_system::beidou;
    case Talker::qzss:
      return Gnss_system::qzss;
    case Talker::navic:
      return Gnss_system::navic;
    case Talker::indoor:
    case Talker::combined:
    case Talker::integrated:
      break;
  }
  return Gnss_system::unknown;
}

}  // namespace

std::optional<Talker> talker_of_system_id(unsigned system_id) {
  constexpr std::array talkers{Talker::gps,    Talker::glonass, Talker::galileo,
                               Talker::beidou, Talker::qzss,    Talker::navic};
  if (system_id < 1 || system_id > talkers.size()) return std::nullopt;
  return talkers.at(system_id - 1);
}

Satellite_number satellite_number(Talker talker, unsigned printed) {
  for (const Talker numbering : {talker, Talker::combined}) {
    const auto* range = std::find_if(ranges.begin(), ranges.end(), [&](const Range& candidate) {
      return candidate.talker == numbering && printed >= candidate.first &&
             printed <= candidate.last;
    });
    if (range == ranges.end()) continue;
    return {range->system, static_cast<std::uint16_t>(static_cast<int>(printed) + range->shift)};
  }
  return {system_of(talker), static_cast<std::uint16_t>(printed)};
}

}  // namespace nmea
