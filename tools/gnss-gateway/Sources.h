/// What the gateway can take positions from. Each runs until its end or until the output says stop.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "tools/gnss-gateway/Output.h"
#include "tools/nmea/Framer.h"

namespace gateway {

struct Drive_options {
  double rate_hz = 10;
  std::size_t satellites = 24;
  std::chrono::nanoseconds start{};  ///< instant of the drive to begin with
};

/// What a source has seen.
struct Source_result {
  std::uint64_t fixes = 0;        ///< instants with a valid fix
  std::uint64_t without_fix = 0;  ///< instants without
  nmea::Counters nmea;
};

[[nodiscard]] Source_result run_drive(const Drive_options& options, Output& output);

struct Nmea_options {
  std::string path;  ///< a recording; a device, pipe or "-" (standard input) is read as it comes
  double speed_up = 1;
  bool loop = false;
  std::chrono::nanoseconds max_gap = std::chrono::seconds(2);
};

/// Where NMEA sentences come from.
class Input {
 public:
  /// Opens a file, device or pipe, or standard input for "-". Does not wait for a pipe's writer nor
  /// for a line's carrier. This and the other functions throw std::system_error with the path.
  explicit Input(const std::string& path);
  ~Input();
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  [[nodiscard]] int descriptor() const { return descriptor_; }
  [[nodiscard]] bool is_recording() const;
  /// Nothing when there is nothing yet, no bytes at the end. The bytes stay until the next call.
  [[nodiscard]] std::optional<std::span<const std::byte>> read();
  void rewind();

 private:
  [[noreturn]] void fail() const;

  const std::string path_;
  const int descriptor_;
  std::array<std::byte, 4096> buffer_{};
};

/// `input` is that of `options.path`. A recording is sent in its own time, divided by the speed-up;
/// a gap in it takes at most `max_gap`. Throws std::runtime_error with the path when it cannot be
/// read or holds no sentence with a fix to send.
[[nodiscard]] Source_result run_nmea(const Nmea_options& options, Input& input, Output& output);

}  // namespace gateway
