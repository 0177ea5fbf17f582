/// Lines on standard output from several threads, until enough have come.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "tools/Stop_signal.h"

namespace posctl {

class Printer {
 public:
  /// `count` lines are enough; 0: never. Throws std::system_error.
  explicit Printer(std::uint64_t count);
  ~Printer();
  Printer(const Printer&) = delete;
  Printer& operator=(const Printer&) = delete;

  /// Nothing is printed any more once enough have come. A line that standard output does not take,
  /// because its reader has gone, ends the wait too. Any thread.
  void print(const std::string& line);
  [[nodiscard]] std::uint64_t printed() const;

  /// Returns true when the time is over before enough lines have come or a stop signal came. 0
  /// seconds: no bound.
  [[nodiscard]] bool wait(tools::Stop_signal& stop_signal, double seconds) const;

 private:
  const std::uint64_t enough_;
  const int finished_;        ///< readable when enough has come
  mutable std::mutex mutex_;  ///< guards the count and standard output
  std::uint64_t printed_ = 0;
};

}  // namespace posctl
