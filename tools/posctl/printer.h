/// Prints the lines of several threads until it has printed enough or cannot write.
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <string>

#include "tools/stop_signal.h"

namespace posctl {

class Printer {
 public:
  /// `count` lines are enough; 0: never. Throws std::system_error.
  explicit Printer(std::uint64_t count);
  ~Printer();
  Printer(const Printer&) = delete;
  Printer& operator=(const Printer&) = delete;

  /// Prints a line, unless enough lines were printed or one could not be written. Any thread may
  /// call.
  void print(const std::string& line);
  /// A line that does not count.
  void remark(const std::string& line);
  /// Writes elsewhere; it must not wait once the descriptor `cancel` is readable.
  using Write = std::function<void(int cancel)>;
  /// The same with another output than a line.
  void print(const Write& write);
  void remark(const Write& write);
  /// The same, unless another thread writes. `write` must not wait at all.
  void remark_at_once(const Write& write);
  /// The same, unless it would have to wait. For the thread that calls wait().
  void remark_at_once(const std::string& line);
  [[nodiscard]] std::uint64_t printed() const;

  /// Throws the exception with which print() could not write a line.
  void check() const;

  /// Waits until enough lines are printed, a line could not be written or a stop signal comes, for
  /// at most `seconds`; 0: no bound. Returns true if the time ended first. Calls `tick` ten times a
  /// second meanwhile. Afterwards a reader that has stopped reading standard output no longer
  /// blocks print().
  [[nodiscard]] bool wait(tools::Stop_signal& stop_signal,
                          double seconds,
                          const std::function<void()>& tick = {}) const;

 private:
  void write(const Write& write, bool counts);  ///< with the mutex held

  const std::uint64_t enough_;
  const int finished_;        ///< readable when no more lines are printed
  const int cancelled_;       ///< readable when wait() has returned
  mutable std::mutex mutex_;  ///< guards the members below and the output
  std::uint64_t printed_ = 0;
  std::exception_ptr failure_;
};

/// "after 5 s: ", for the message of a command that gives up.
[[nodiscard]] std::string text_after(double seconds);

}  // namespace posctl
