/// Positions as rows of a table for a terminal, with lines for their loss and return.
#pragma once

#include <array>
#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tools/posctl/record_json.h"

namespace posctl {

/// Formats positions as rows and reports a silence between them. Any thread may call.
class Position_table {
 public:
  using Time = std::chrono::steady_clock::time_point;

  explicit Position_table(bool wide) : wide_{wide} {}

  [[nodiscard]] std::string header() const;
  /// The lines for a notification: its return if nothing had come, and a row. `age_ms` is
  /// nothing without a stamp.
  [[nodiscard]] std::vector<std::string> rows(const Json& record,
                                              std::optional<double> age_ms,
                                              Time now);
  /// "nothing for 2.1 s", if that is news: after two seconds or three intervals, then each time
  /// that the silence has doubled.
  [[nodiscard]] std::optional<std::string> silence(Time now);

 private:
  [[nodiscard]] double rate() const;

  const bool wide_;
  std::mutex mutex_;               ///< guards the members below
  std::array<Time, 32> arrivals_;  ///< a ring
  std::size_t count_ = 0;          ///< of all arrivals
  std::optional<Time> last_;
  std::chrono::duration<double> reported_{};  ///< the silence of the last line; 0: none
};

}  // namespace posctl
