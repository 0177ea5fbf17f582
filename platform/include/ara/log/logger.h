/// Log contexts. An application calls InitLogging once, before it starts threads. Each part of the
/// application creates the logger of its own context.
#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <string_view>

#include "ara/log/common.h"
#include "ara/log/log_stream.h"

namespace ara::log {

struct Context;  // defined in platform/linux/log

/// Names the application (1 to 4 characters) and opens the destinations of `mode`. `directory_path`
/// is for platforms that write log files; this platform ignores it.
///
/// With kRemote, messages reach the DLT daemon if there is one, else standard error, never both.
/// The log notices a daemon that starts or ends later. Neither start nor exit waits for a missing
/// daemon; a slow one can delay the exit by a second.
/// In the application "pos" the environment variable POS_LOG_LEVEL replaces `default_level` and
/// sets single contexts: "debug" or "info,GNSS=warn,TRCE=verbose". The first use of the log reads
/// it. A DLT daemon can change levels at run time.
///
/// Loggers created earlier stay valid and use these settings from now on. A second call is ignored
/// with a warning. Throws std::invalid_argument for a bad `app_id`.
void InitLogging(std::string_view app_id,
                 std::string_view description,
                 LogLevel default_level,
                 LogMode mode,
                 std::string_view directory_path);

/// A log context. Any number of threads may log through one logger.
class Logger {
 public:
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  /// Costs one relaxed load: a level changed at run time takes effect soon, in no order with other
  /// memory.
  [[nodiscard]] bool IsEnabled(LogLevel level) const noexcept {
    return level <= level_.load(std::memory_order_relaxed);
  }

  [[nodiscard]] LogStream LogFatal() const noexcept { return Stream(LogLevel::kFatal); }
  [[nodiscard]] LogStream LogError() const noexcept { return Stream(LogLevel::kError); }
  [[nodiscard]] LogStream LogWarn() const noexcept { return Stream(LogLevel::kWarn); }
  [[nodiscard]] LogStream LogInfo() const noexcept { return Stream(LogLevel::kInfo); }
  [[nodiscard]] LogStream LogDebug() const noexcept { return Stream(LogLevel::kDebug); }
  [[nodiscard]] LogStream LogVerbose() const noexcept { return Stream(LogLevel::kVerbose); }

  /// A stream for a level that is known only at run time; kOff is never enabled.
  [[nodiscard]] LogStream Stream(LogLevel level) const noexcept {
    return {level != LogLevel::kOff && IsEnabled(level) ? this : nullptr, level};
  }
  /// Logs a message of one argument.
  void Log(LogLevel level, std::string_view text) const noexcept { Stream(level) << text; }

  [[nodiscard]] LogLevel Level() const noexcept { return level_.load(std::memory_order_relaxed); }
  /// The level itself, for callers that check it so often that they keep a pointer to it.
  [[nodiscard]] const std::atomic<LogLevel>& LevelInForce() const noexcept { return level_; }
  /// Holds until the daemon sets another level.
  void SetLevel(LogLevel level) noexcept;
  [[nodiscard]] const std::string& ContextId() const noexcept;

 private:
  friend struct Context;
  friend class LogStream;
  explicit Logger(Context& context) noexcept : context_(context) {}
  ~Logger() = default;

  std::atomic<LogLevel> level_{LogLevel::kInfo};
  Context& context_;
};

/// The logger of the context `ctx_id` (1 to 4 printable characters). It lives until the process
/// ends. The same id gives the same logger, with the description and level of the first call.
/// `level` replaces the default level for this context; an entry of that environment variable for
/// the context replaces both. Throws std::invalid_argument for a bad id.
Logger& CreateLogger(std::string_view ctx_id,
                     std::string_view description,
                     std::optional<LogLevel> level = std::nullopt);

/// The application's default context. Its id is the application id.
Logger& DefaultLogger();

[[nodiscard]] inline LogStream LogFatal() {
  return DefaultLogger().LogFatal();
}
[[nodiscard]] inline LogStream LogError() {
  return DefaultLogger().LogError();
}
[[nodiscard]] inline LogStream LogWarn() {
  return DefaultLogger().LogWarn();
}
[[nodiscard]] inline LogStream LogInfo() {
  return DefaultLogger().LogInfo();
}
[[nodiscard]] inline LogStream LogDebug() {
  return DefaultLogger().LogDebug();
}
[[nodiscard]] inline LogStream LogVerbose() {
  return DefaultLogger().LogVerbose();
}

}  // namespace ara::log
