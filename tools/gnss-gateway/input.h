/// Where NMEA sentences come from: a recording, a pipe, a serial device.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace gateway {

/// Bits per second that a serial device can be set to, those of receivers first.
inline constexpr std::array<unsigned, 11> serial_rates{9600,   38400,  115200, 4800, 57600, 19200,
                                                       230400, 460800, 921600, 2400, 1200};

class Input {
 public:
  enum class Kind : std::uint8_t {
    recording,  ///< a file
    stream,     ///< a pipe, a socket, a terminal at standard input: it may end
    device,     ///< a character device: its end is a fault
  };

  /// Opens a file, device or pipe, or standard input for "-". Does not wait for the writer of a
  /// pipe or the carrier of a line. Sets a serial device to raw bytes, 8 data bits, no parity, no
  /// echo, no flow control, and leaves it so. With `may_be_missing`, a missing path counts as a
  /// closed device. This and the other functions throw std::system_error with the path.
  explicit Input(const std::string& path, bool may_be_missing = false);
  ~Input();
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] Kind kind() const { return kind_; }
  /// Whether set_rate() applies.
  [[nodiscard]] bool is_serial() const { return serial_; }
  /// Negative while the input is closed.
  [[nodiscard]] int descriptor() const { return descriptor_; }
  [[nodiscard]] bool is_open() const { return descriptor_ >= 0; }

  /// Returns nothing while no byte has arrived, and no bytes at the end or when a device has
  /// disappeared. The bytes stay valid until the next call.
  [[nodiscard]] std::optional<std::span<const std::byte>> read();
  /// Only for a recording.
  void rewind();

  /// Sets a serial device to one of serial_rates and discards what it has received so far.
  void set_rate(unsigned rate);
  /// The rate that a serial device has; nothing when it is none of serial_rates.
  [[nodiscard]] std::optional<unsigned> rate() const;

  void close();
  /// Returns whether the path exists again and is open.
  [[nodiscard]] bool reopen();

 private:
  void open();
  void examine();
  [[noreturn]] void fail() const;

  const std::string path_;
  int descriptor_ = -1;
  Kind kind_ = Kind::device;
  bool serial_ = false;
  std::array<std::byte, 4096> buffer_{};
};

}  // namespace gateway
