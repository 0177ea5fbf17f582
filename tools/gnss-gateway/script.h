/// Reads a script: JSON lines, each with one notification of a field and its time. The lines that
/// `posctl watch --json` prints are a script.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/gnss-gateway/notification.h"

namespace gateway {

class Script_line {
 public:
  /// Throws std::invalid_argument, which says what was expected and what was found.
  explicit Script_line(std::string_view text);

  /// Seconds: from the start of the script, or of a recorded line since 1970.
  [[nodiscard]] double time() const { return time_; }
  [[nodiscard]] bool is_recorded() const { return recorded_; }
  /// A recording of the application's output has lines that no source sends.
  [[nodiscard]] bool is_sent() const { return sent_; }
  [[nodiscard]] const std::string& field() const { return field_; }

  /// Sets the field in `all`. Absent members get a value: a record without a position type becomes
  /// one of each type, a quantity is a PhysicalValue, a position has counter and time stamp of
  /// `context`. A member that is null stays absent. The stamps of a recorded line keep their age.
  void add_to(Notification& all, const Context& context) const;

 private:
  nlohmann::json records_;
  std::string field_;
  double time_ = 0;
  bool recorded_ = false;
  bool sent_ = true;
};

/// The lines of a file, one after the other.
class Script {
 public:
  /// Throws std::system_error when the file cannot be read, and std::runtime_error for anything but
  /// a regular file, which can be read again.
  explicit Script(const std::string& path);

  struct Entry {
    std::chrono::nanoseconds time{};  ///< from the first line
    Script_line line;
  };
  /// The next lines with the same time and different fields; none at the end. Throws
  /// std::runtime_error with the path and the line.
  [[nodiscard]] std::vector<Entry> next_instant();
  void rewind();
  /// Reads all of it. Throws std::runtime_error also when no line is sent.
  void check();

 private:
  /// The next line that is sent.
  [[nodiscard]] std::optional<Entry> next();
  [[noreturn]] void fail(const std::string& problem) const;

  const std::string path_;
  std::ifstream file_;
  std::optional<Entry> ahead_;  ///< the first line of the next instant
  std::uint64_t number_ = 0;
  std::optional<double> begin_;  ///< time of the first line of a recording, else 0
  bool recorded_ = false;
  double last_ = 0;
};

}  // namespace gateway
