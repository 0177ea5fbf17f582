/// Why NMEA sentences are faulty, as the statistics name it.
#pragma once

#include <array>
#include <cstdint>

#include "tools/nmea/framer.h"

namespace gateway {

struct Reason {
  const char* name;
  std::uint64_t nmea::Counters::*counter;
};
inline constexpr std::array<Reason, 8> reasons{{
    {"tooLong", &nmea::Counters::too_long},
    {"badCharacter", &nmea::Counters::bad_character},
    {"incomplete", &nmea::Counters::incomplete},
    {"checksumMissing", &nmea::Counters::checksum_missing},
    {"checksumMismatch", &nmea::Counters::checksum_mismatch},
    {"malformedField", &nmea::Counters::malformed_field},
    {"incompleteGroups", &nmea::Counters::incomplete_groups},
    {"contradictions", &nmea::Counters::contradictions},
}};

}  // namespace gateway
