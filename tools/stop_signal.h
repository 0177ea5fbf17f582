/// A clean end on SIGINT and SIGTERM for the tools.
#pragma once

#include <chrono>
#include <cstdint>

namespace tools {

/// Blocks the two signals in the calling thread and in those started later, and takes them where
/// the program waits. Create it before anything that starts threads.
class Stop_signal {
 public:
  enum class Wake : std::uint8_t { due, readable, stopped };

  /// Throws std::system_error.
  Stop_signal();
  ~Stop_signal();
  Stop_signal(const Stop_signal&) = delete;
  Stop_signal& operator=(const Stop_signal&) = delete;

  /// Returns `stopped` once a signal has come, and from then on always. Returns `readable` when the
  /// file descriptor `input` has data or has ended; below 0 there is none. Returns `due` at that
  /// time, or earlier when the file descriptor `alarm` is readable.
  [[nodiscard]] Wake wait_until(std::chrono::steady_clock::time_point due,
                                int input = -1,
                                int alarm = -1);
  /// Readable once a signal has come, and from then on always.
  [[nodiscard]] int descriptor() const { return descriptor_; }

 private:
  int descriptor_ = -1;
  bool stopped_ = false;
};

}  // namespace tools
