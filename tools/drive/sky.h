/// The satellites of a synthetic drive.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace drive {

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

  /// The sky `seconds` after the start of the drive, with `count` satellites. Without a sight of
  /// the sky, none is tracked.
  [[nodiscard]] static Sky at(double seconds, std::size_t count, bool in_sight);
};

}  // namespace drive
