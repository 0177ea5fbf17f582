/// Log messages as lines of text on standard error.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>

#include "ara/log/common.h"

namespace ara::log {

/// Returns "2026/11/24 20:32:00.459871 info POS GNSS text\n", in local time. Control characters in
/// `text` become blanks, so that no text of a peer can forge a line.
[[nodiscard]] std::string format_line(LogLevel level,
                                      std::string_view application,
                                      std::string_view context,
                                      std::string_view text);

/// Standard error, written to without waiting. Setting O_NONBLOCK would not do: the flag belongs to
/// the open file description, which other programs share.
class Standard_error {
 public:
  Standard_error();
  ~Standard_error() = default;  // its descriptor lives until the process ends
  Standard_error(const Standard_error&) = delete;
  Standard_error& operator=(const Standard_error&) = delete;

  /// True if write() may wait for the reader: standard error is neither a socket nor a file and
  /// cannot be opened a second time (a pipe of another user).
  [[nodiscard]] bool may_wait() const { return may_wait_; }
  /// Removes the written bytes from `line`. Returns 0 if nothing remains, else an error number;
  /// EAGAIN means that the reader does not read.
  int write(std::string_view& line) const noexcept;
  /// Returns when the reader reads again or is gone.
  void wait_for_reader() const noexcept;

 private:
  int descriptor_;
  bool socket_ = false;
  bool may_wait_ = false;
};

/// Writes whole lines to standard error, in order, without ever waiting for its reader. The
/// caller's thread writes a line if standard error accepts it at once. Otherwise the line waits in
/// a queue, and a dedicated thread writes the queue. While the queue is full, lines are dropped;
/// one line with their number follows the queue.
class Text_sink {
 public:
  /// The sink registers `exit_handler`, which calls close(), when it starts its thread.
  explicit Text_sink(void (*exit_handler)()) : exit_handler_(exit_handler) {}
  ~Text_sink() = delete;
  Text_sink(const Text_sink&) = delete;
  Text_sink& operator=(const Text_sink&) = delete;

  /// `application` is the id of the lines that report dropped lines.
  void configure(std::string_view application);
  /// Any thread may call. Never waits before close().
  void write(std::string line) noexcept;
  /// At exit: waits for the queue as long as the reader reads, else for a tenth of a second. Later
  /// lines wait in the same way, until one has waited in vain.
  void close();

 private:
  void add(std::string line);
  void start_thread();
  void write_queue() noexcept;
  [[nodiscard]] bool enqueue_notice() noexcept;
  [[nodiscard]] std::string notice_of(std::uint64_t lines) const;
  void wait_for_queue(std::unique_lock<std::mutex>& lock);

  void (*const exit_handler_)();
  const Standard_error output_;
  std::mutex mutex_;  ///< guards the members below; never held while a write may wait
  std::string application_ = "-";
  std::deque<std::string> queue_;
  std::size_t queued_bytes_ = 0;
  bool queuing_ = false;  ///< queue_ is not empty, or the thread is writing its last line
  bool thread_runs_ = false;
  std::uint64_t written_ = 0;  ///< lines that the thread has taken from the queue and written
  std::uint64_t dropped_ = 0;  ///< lines since the last notice
  bool closed_ = false;
  bool given_up_ = false;  ///< the reader did not read at exit
  std::condition_variable enqueued_;
  std::condition_variable drained_;
};

}  // namespace ara::log
