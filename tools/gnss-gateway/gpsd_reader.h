/// Bytes of gpsd in, fixes out: the whole path of gpsd's JSON stream, without any input or output
/// of its own.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "tools/nmea/fix.h"

struct gps_data_t;

namespace gateway {

/// Only ever grows.
struct Gpsd_counters {
  std::uint64_t reports = 0;        ///< of the receiver: TPV, SKY, GST, ATT, IMU
  std::uint64_t other_reports = 0;  ///< other classes, other devices
  std::uint64_t repeated = 0;       ///< TPV of an instant that other TPV describe better
  std::uint64_t malformed = 0;      ///< no JSON object, not readable by libgps, or too long
};

/// A TPV gives one fix, several TPV of one instant in a burst give one as well. SKY, GST, ATT and
/// IMU of the same burst add to it; a SKY without a TPV gives a supplement. The reader holds the
/// last SKY for the fixes that follow.
///
/// Without a wanted device the reader follows the device of the first TPV until forget(). ATT and
/// IMU then count from every device, since a compass is a device of its own.
class Gpsd_reader {
 public:
  using Sink = std::function<void(const nmea::Fix&)>;
  /// gpsd's longest report is a SKY of 140 satellites, with about 100 bytes for each.
  static constexpr std::size_t max_line = 32'768;

  /// `wanted`: the device as gpsd names it; empty for any.
  explicit Gpsd_reader(std::string wanted);
  ~Gpsd_reader();
  Gpsd_reader(const Gpsd_reader&) = delete;
  Gpsd_reader& operator=(const Gpsd_reader&) = delete;

  /// `sink` receives each fix that a following TPV has ended.
  void feed(std::span<const char> bytes, const Sink& sink);
  /// All bytes of gpsd so far are fed: `sink` receives the last fix, or a supplement.
  void pause(const Sink& sink);
  /// The receiver has gone: the next report is one of a new receiver.
  void forget();
  /// gpsd has gone: the same, and the next byte begins a line.
  void restart();

  /// The device that the reader follows; empty while it has none.
  [[nodiscard]] const std::string& device() const { return followed_; }
  /// Whether gpsd has said since the last forget() that it does not have the device.
  [[nodiscard]] bool device_is_missing() const { return missing_; }
  [[nodiscard]] const Gpsd_counters& counters() const { return counters_; }

 private:
  void take_line(const Sink& sink);
  /// Reads the line into data_. False for one that libgps cannot read to its end.
  bool unpack();
  void take_position(std::optional<nmea::Antenna> antenna, const Sink& sink);
  [[nodiscard]] bool is_repetition(const nmea::Fix& fix) const;
  void take_sky(bool has_satellites);
  void take_accuracy();
  void take_attitude(const std::optional<double>& yaw_rate);
  [[nodiscard]] bool follows(const std::string& device, bool any_device) const;
  void send(const Sink& sink);

  const std::string wanted_;
  const std::unique_ptr<gps_data_t> data_;
  std::string line_;
  bool too_long_ = false;  ///< the rest of the line is passed over
  std::string followed_;
  bool missing_ = false;
  Gpsd_counters counters_;

  std::optional<nmea::Fix> position_;  ///< of the newest TPV, without what other reports add
  bool unsent_ = false;
  bool sky_is_new_ = false;
  nmea::Fix sky_;       ///< only dilutions and satellites
  nmea::Fix accuracy_;  ///< only accuracies, and their time
  nmea::Fix attitude_;  ///< only the attitude, since the last fix
};

}  // namespace gateway
