/// The connection to the DLT daemon, and the check whether a daemon exists.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/linux/log/arguments.h"
#include "platform/linux/log/context.h"

namespace ara::log {

/// Gives messages to the DLT library only while a daemon reads its pipe. The library silently
/// buffers messages that it cannot deliver; at exit it waits ten seconds and then drops the buffer.
/// The check costs one system call a message (a tenth of a microsecond; the library itself takes
/// nearly one). When a daemon dies, the next daemon receives the messages that the library still
/// holds.
class Dlt_sink {
 public:
  /// A change that the caller of ready() has to log.
  enum class Change : std::uint8_t {
    none,
    lost,
    /// The library has not noticed yet. It needs one message to find its end of the pipe dead, and
    /// keeps that message for the new daemon. ready() returns false until the library has had time
    /// to connect again.
    returned,
  };
  struct Readiness {
    bool ready;
    Change change;
  };

  /// The sink registers `exit_handler`, which calls close(), when it starts the library.
  explicit Dlt_sink(void (*exit_handler)()) : exit_handler_(exit_handler) {}
  ~Dlt_sink() = delete;
  Dlt_sink(const Dlt_sink&) = delete;
  Dlt_sink& operator=(const Dlt_sink&) = delete;

  /// Call it before every other member.
  void configure(std::string_view application, std::string_view description);
  /// Checks whether a daemon can take a message now. Without a daemon it looks for one, at most
  /// twice a second, and registers `contexts` when it finds one. Never waits.
  Readiness ready(Context* contexts);
  /// Registers a context that was created later.
  void register_context(Context& context);
  /// Call it only after ready(). Returns false if the daemon receives nothing of the message,
  /// because the context is not yet registered or the library refuses the message.
  bool send(Context& context, LogLevel level, Arguments arguments);
  /// At exit: from now on ready() returns false. Lets the library wait for a slow daemon, but not
  /// without a daemon.
  void close();

 private:
  enum class State : std::uint8_t { never_seen, connected, lost, returning, closed };

  bool open_pipe();
  void close_pipe();
  /// The one system call of a message beside the library's own. Without the lock, the answer counts
  /// only if state_ was connected before and still is afterwards.
  [[nodiscard]] bool reader_lives() const;
  void start_library();
  void register_locked(Context& context);

  void (*const exit_handler_)();
  std::string application_;
  std::string description_;
  std::atomic<State> state_ = State::never_seen;
  std::atomic<std::int64_t> next_look_ =
      0;              ///< coarse clock, ns; relaxed: it only spaces the look-ups
  std::mutex mutex_;  ///< guards the members below and registration; only tried while logging
  int pipe_ = -1;     ///< our own end of the daemon's pipe, which reports the reader's death
  int watch_ = -1;    ///< epoll of pipe_, cheaper to query; set before connected, then kept
  bool library_started_ = false;
  std::size_t max_payload_ = 0;  ///< of a message; set before any context is registered, then kept
};

}  // namespace ara::log
