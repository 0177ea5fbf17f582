/// Positions as NMEA 0183 sentences.
#pragma once

#include <chrono>
#include <string>

#include "tools/posctl/track/track_point.h"

namespace posctl::track {

/// RMC, GGA, VTG, GSA and GST of a position, each with its checksum and line end. The talker is GN.
[[nodiscard]] std::string sentences_of(const Point& point);

/// RMC, GGA and GSA that say: there is no valid position at this time.
[[nodiscard]] std::string sentences_without_position(std::chrono::nanoseconds utc);

}  // namespace posctl::track
