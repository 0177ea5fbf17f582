/// The sources of positions. Each runs to its end or until the output stops it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/gnss-gateway/input.h"
#include "tools/gnss-gateway/output.h"
#include "tools/gnss-gateway/script.h"
#include "tools/nmea/framer.h"

namespace gateway {

struct Drive_options {
  double rate_hz = 10;
  std::size_t satellites = 24;
  std::chrono::nanoseconds start{};  ///< instant of the drive to begin with
};

/// Counts of a source.
struct Source_result {
  std::uint64_t fixes = 0;        ///< instants with a valid fix
  std::uint64_t without_fix = 0;  ///< instants without
  nmea::Counters nmea;
};

[[nodiscard]] Source_result run_drive(const Drive_options& options, Output& output);

struct Nmea_options {
  std::string path;  ///< a recording; a device, pipe or "-" (standard input) is read as it comes
  // Of a recording:
  double speed_up = 1;
  bool loop = false;
  std::chrono::nanoseconds max_gap = std::chrono::seconds(2);
  // Of a device:
  std::optional<unsigned> baud;  ///< absent: found by trying
  bool reconnect = false;        ///< wait for a device that has gone
};

struct Script_options {
  double speed_up = 1;
  bool loop = false;
};

/// Sends a checked script in its own time, divided by the speed-up.
[[nodiscard]] Source_result run_script(const Script_options& options,
                                       Script& script,
                                       Output& output);

/// `input` is that of `options.path`. A recording is sent in its own time, divided by the speed-up;
/// a gap in it takes at most `max_gap`. Throws std::runtime_error with the path when it cannot be
/// read, when it holds no sentence with a fix, or when the device disappears.
[[nodiscard]] Source_result run_nmea(const Nmea_options& options, Input& input, Output& output);

}  // namespace gateway
