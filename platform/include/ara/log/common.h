/// Levels and modes of the platform log.
#pragma once

#include <cstdint>
#include <string_view>

namespace ara::log {

/// A context at level L writes the messages of L and of every more severe level (smaller number).
enum class LogLevel : std::uint8_t {
  kOff = 0,
  kFatal = 1,
  kError = 2,
  kWarn = 3,
  kInfo = 4,
  kDebug = 5,
  kVerbose = 6,
};

/// Destinations of messages. The values are bits, joined by |.
enum class LogMode : std::uint8_t {
  kRemote = 1,   ///< DLT daemon; standard error while there is no daemon
  kConsole = 4,  ///< standard error
};

constexpr LogMode operator|(LogMode a, LogMode b) {
  return static_cast<LogMode>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
}
constexpr bool Has(LogMode modes, LogMode mode) {
  return (static_cast<unsigned>(modes) & static_cast<unsigned>(mode)) != 0;
}

/// "off", "fatal", "error", "warn", "info", "debug", "verbose".
[[nodiscard]] std::string_view NameOf(LogLevel level);

}  // namespace ara::log
