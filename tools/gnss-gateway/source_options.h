/// Options and result of each source of positions.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/gnss-gateway/gpsd_reader.h"
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

struct Gpsd_options {
  std::string host = "localhost";
  std::string port = "2947";
  std::string device;  ///< as gpsd names it; empty: the first that sends positions
};

/// Counts of a source.
struct Source_result {
  std::uint64_t fixes = 0;        ///< instants with a valid fix
  std::uint64_t without_fix = 0;  ///< instants without
  nmea::Counters nmea;
  Gpsd_counters gpsd;
};

}  // namespace gateway
