/// The sources of positions. Each runs to its end or until the output stops it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tools/drive/drive.h"
#include "tools/gnss-gateway/gpsd_reader.h"
#include "tools/gnss-gateway/input.h"
#include "tools/gnss-gateway/output.h"
#include "tools/gnss-gateway/script.h"
#include "tools/nmea/framer.h"

namespace gateway {

struct Drive_options {
  double rate_hz = 10;
  std::size_t satellites = 24;
  std::chrono::nanoseconds start{};   ///< instant of the drive to begin with
  std::string route;                  ///< a GPX file; empty: the closed course
  double route_speed = 50;            ///< km/h where the route has no speed of its own
  bool loop = false;                  ///< begin again at the route's end
  std::optional<std::uint64_t> seed;  ///< of the sensors' errors; absent: none
};

/// Counts of a source.
struct Source_result {
  std::uint64_t fixes = 0;        ///< instants with a valid fix
  std::uint64_t without_fix = 0;  ///< instants without
  nmea::Counters nmea;
  Gpsd_counters gpsd;
};

/// Ends with the route, unless it loops. `course` is that of `options`.
[[nodiscard]] Source_result run_drive(const Drive_options& options,
                                      const drive::Course& course,
                                      Output& output);

/// Throws std::runtime_error with the path of the route.
[[nodiscard]] drive::Course course_of(const Drive_options& options);

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

struct Gpsd_options {
  std::string host = "localhost";
  std::string port = "2947";
  std::string device;  ///< as gpsd names it; empty: the first that sends positions
};

/// Reads HOST[:PORT[:DEVICE]], where an empty part stands for its default and an IPv6 address
/// stands in brackets. Throws std::invalid_argument.
[[nodiscard]] Gpsd_options to_gpsd_options(std::string_view text);

/// Follows gpsd until the output is done. While gpsd or its receiver is away, the notifications say
/// so, once a second.
[[nodiscard]] Source_result run_gpsd(const Gpsd_options& options, Output& output);

}  // namespace gateway
