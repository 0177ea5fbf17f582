/// The number of a satellite within its system, from the numbers that receivers print.
#pragma once

#include <cstdint>
#include <optional>

#include "tools/nmea/fix.h"

namespace nmea {

/// The sender of a sentence: the receiver of one system, `combined` (GN) for a solution over
/// several systems, or `indoor` (IM) for indoor transmitters. `integrated` is a device that passes
/// on the data of a receiver.
enum class Talker : std::uint8_t {
  gps,
  glonass,
  galileo,
  beidou,
  qzss,
  navic,
  indoor,
  combined,
  integrated
};
inline constexpr std::size_t talker_count = 9;

/// The system that the last field of GSA names since NMEA 4.1, as its receiver's talker.
[[nodiscard]] std::optional<Talker> talker_of_system_id(unsigned system_id);

struct Satellite_number {
  Gnss_system system{};
  std::uint16_t id = 0;
  friend bool operator==(const Satellite_number&, const Satellite_number&) = default;
};

/// `printed` as `talker` prints it. docs/receivers.md has the table.
[[nodiscard]] Satellite_number satellite_number(Talker talker, unsigned printed);

}  // namespace nmea
