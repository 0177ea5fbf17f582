/// Reads the receiver of a gpsd: any protocol that gpsd knows, here or on another machine.
#pragma once

#include <sys/socket.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <future>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tools/gnss-gateway/fix_publisher.h"
#include "tools/gnss-gateway/gpsd_reader.h"
#include "tools/gnss-gateway/output.h"
#include "tools/gnss-gateway/source_options.h"

namespace gateway {

/// A TCP connection that never waits.
class Gpsd_connection {
 public:
  Gpsd_connection() = default;
  ~Gpsd_connection();
  Gpsd_connection(const Gpsd_connection&) = delete;
  Gpsd_connection& operator=(const Gpsd_connection&) = delete;

  struct Address {
    sockaddr_storage name{};
    socklen_t size = 0;
  };

  /// Begins to connect. descriptor() becomes readable with gpsd's first line, or with the failure.
  void open(const Address& address);
  void close();
  /// Negative while it is closed.
  [[nodiscard]] int descriptor() const { return descriptor_; }
  /// Returns nothing while no byte has arrived, and no bytes once the connection has failed. The
  /// bytes stay valid until the next call.
  [[nodiscard]] std::optional<std::span<const char>> read();
  /// Asks for reports. Wakes gpsd, which then looks at its devices.
  void watch();

 private:
  int descriptor_ = -1;
  std::array<char, 16'384> buffer_{};
};

class Gpsd {
 public:
  Gpsd(const Gpsd_options& options, Output& output);

  /// Returns when the output is done.
  [[nodiscard]] Source_result run();

 private:
  using Time = std::chrono::steady_clock::time_point;
  using Wake = tools::Stop_signal::Wake;

  /// What is missing for positions.
  enum class Absence : std::uint8_t { nothing, unknown, gpsd, device, data };

  [[nodiscard]] bool connect();
  [[nodiscard]] std::optional<std::vector<Gpsd_connection::Address>> resolve();
  [[nodiscard]] bool serve();
  [[nodiscard]] bool take_bytes();
  void handle_time(Time now);
  void publish(const nmea::Fix& fix);
  void look_at_device(Time now);
  void lose(Absence absence);
  [[nodiscard]] Wake wait_until(Time due, int input = -1);
  [[nodiscard]] std::string place() const;

  const Gpsd_options options_;
  Output& output_;
  Fix_publisher publisher_;
  Gpsd_reader reader_;
  const Gpsd_reader::Sink sink_;
  Gpsd_connection connection_;

  Absence absence_ = Absence::unknown;
  Time next_absence_report_;
  bool was_connected_ = false;
  Time received_{};  ///< time of the newest fix, or of the connection
  std::chrono::nanoseconds patience_;

  /// The last device that sent positions, if its path exists on this machine.
  std::string path_;
  bool path_exists_ = false;
  Time next_look_ = Time::max();
  int calls_left_ = 0;  ///< to gpsd, whose device is back
  Time next_call_ = Time::max();
};

}  // namespace gateway
