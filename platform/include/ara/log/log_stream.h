/// One log message under construction.
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "ara/log/common.h"

namespace ara::log {

class Logger;

/// See HexFormat().
struct Hex {
  std::uint64_t value;
};

/// Logs an unsigned number as hexadecimal digits: lower case, no prefix, no leading zeros. The
/// argument is a text, so every receiver shows the same digits.
template <std::unsigned_integral T>
[[nodiscard]] constexpr Hex HexFormat(T value) {
  return Hex{value};
}
template <std::signed_integral T>
[[nodiscard]] constexpr Hex HexFormat(T value) {
  return Hex{static_cast<std::make_unsigned_t<T>>(value)};
}

/// One log message: each << adds a typed argument, the stream's destructor sends the message. Only
/// the Log… functions of Logger make a stream. One thread uses it; it is neither copied nor moved:
///
///     logger.LogInfo() << "Got entry " << key << "=" << value;
///
/// A stream of a disabled level ignores its arguments. A message longer than one DLT message can
/// carry (1390 bytes with argument headers) is sent in parts. Each part but the last ends with the
/// argument "[continues]", each but the first begins with "[continued]". Past 64 KiB the rest is
/// dropped and the message ends with the argument "[truncated]".
///
/// Nothing here throws. A message that cannot be sent (no memory) is dropped.
class LogStream {
 public:
  /// A null `logger` means that the level is off.
  LogStream(const Logger* logger, LogLevel level) noexcept : logger_(logger), level_(level) {}
  ~LogStream() {
    if (logger_ != nullptr) Send();
  }
  LogStream(const LogStream&) = delete;
  LogStream& operator=(const LogStream&) = delete;

  LogStream& operator<<(bool value) noexcept {
    if (logger_ != nullptr) AddBool(value);
    return *this;
  }
  /// A char is a text of one character. The other integers are numbers.
  LogStream& operator<<(char value) noexcept { return *this << std::string_view(&value, 1); }
  template <std::signed_integral T>
  LogStream& operator<<(T value) noexcept {
    if (logger_ != nullptr) AddSigned(value, sizeof(T));
    return *this;
  }
  template <std::unsigned_integral T>
  LogStream& operator<<(T value) noexcept {
    if (logger_ != nullptr) AddUnsigned(value, sizeof(T));
    return *this;
  }
  LogStream& operator<<(float value) noexcept {
    if (logger_ != nullptr) AddFloat(value);
    return *this;
  }
  LogStream& operator<<(double value) noexcept {
    if (logger_ != nullptr) AddDouble(value);
    return *this;
  }
  LogStream& operator<<(std::string_view value) noexcept {
    if (logger_ != nullptr) AddText(value);
    return *this;
  }
  LogStream& operator<<(const std::string& value) noexcept {
    return *this << std::string_view(value);
  }
  /// A null pointer is logged as "(null)".
  LogStream& operator<<(const char* value) noexcept {
    if (logger_ != nullptr) AddText(value != nullptr ? std::string_view(value) : "(null)");
    return *this;
  }
  LogStream& operator<<(Hex value) noexcept {
    if (logger_ != nullptr) AddHex(value.value);
    return *this;
  }
  /// Deleted: a pointer would otherwise be logged as a bool.
  LogStream& operator<<(const void*) = delete;

  /// True if the arguments will be written. Lets a caller skip costly arguments.
  [[nodiscard]] bool IsEnabled() const noexcept { return logger_ != nullptr; }

 private:
  void AddBool(bool value) noexcept;
  void AddSigned(std::int64_t value, std::size_t size) noexcept;
  void AddUnsigned(std::uint64_t value, std::size_t size) noexcept;
  void AddFloat(float value) noexcept;
  void AddDouble(double value) noexcept;
  void AddText(std::string_view value) noexcept;
  void AddHex(std::uint64_t value) noexcept;
  void AddInteger(std::uint32_t type, std::uint64_t value, std::size_t size) noexcept;
  void AddNumber(std::uint32_t type, const void* value, std::size_t size) noexcept;
  /// Returns the place of the next argument of `size` bytes, null if there is no memory for it.
  char* Extend(std::size_t size) noexcept;
  void Send() noexcept;

  const Logger* logger_;
  LogLevel level_;
  bool truncated_ = false;
  std::size_t used_ = 0;
  std::size_t count_ = 0;
  /// The arguments in the form that platform/linux/log reads: in inline_ while they fit, then in
  /// overflow_.
  std::unique_ptr<std::string> overflow_;
  std::array<char, 1024>
      inline_;  // NOLINT: left uninitialised on purpose, a message fills as much as it needs
};

}  // namespace ara::log
