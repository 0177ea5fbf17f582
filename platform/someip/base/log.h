/// Lines for the operator of the node. The owner of the node provides the sink.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace someip {

enum class Log_level : std::uint8_t { warning, info };
using Log_sink = std::function<void(Log_level, const std::string& text)>;

/// Limits the lines that a peer can cause at will. Thread-safe.
class Log {
 public:
  explicit Log(Log_sink sink) : sink_(std::move(sink)) {}

  void write(Log_level level, const std::string& text) const {
    if (sink_) sink_(level, text);
  }
  /// Writes at most one line of a `kind` (a literal) in five seconds. The next line gives the
  /// number of suppressed lines.
  void limited(Log_level level, std::string_view kind, const std::string& text) {
    if (!sink_) return;
    std::string line = text;
    {
      const std::lock_guard lock(mutex_);
      Kind& known = kinds_[kind];
      const auto now = std::chrono::steady_clock::now();
      if (known.lines > 0 && now - known.last < std::chrono::seconds(5)) {
        ++known.suppressed;
        return;
      }
      if (known.suppressed > 0) line += " (" + std::to_string(known.suppressed) + " more before)";
      known = {now, known.lines + 1, 0};
    }
    sink_(level, line);
  }

 private:
  struct Kind {
    std::chrono::steady_clock::time_point last{};
    std::uint64_t lines = 0;
    std::uint64_t suppressed = 0;
  };
  const Log_sink sink_;
  std::mutex mutex_;  ///< guards kinds_
  std::map<std::string_view, Kind> kinds_;
};

}  // namespace someip
