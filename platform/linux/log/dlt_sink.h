/// The way to the DLT daemon, and the knowledge whether there is one.
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

/// The DLT library buffers what it cannot deliver and does not say so; at exit it waits ten seconds
/// and then drops the buffer. So it is left alone until a daemon reads its pipe, and is given a
/// message only while one does, which costs one system call a message (a tenth of a microsecond
/// beside the library's own, nearly one). What the library still holds when a daemon dies reaches
/// the next daemon.
class DltSink {
 public:
  /// A change that the caller of Ready() is to put on record.
  enum class Change : std::uint8_t {
    kNone,
    kLost,
    /// The library does not know yet: it has to be given one message (which it keeps for the new
    /// daemon) to find its end of the pipe dead. Ready() says no until it has had time to connect
    /// again.
    kReturned,
  };
  struct Readiness {
    bool ready;
    Change change;
  };

  DltSink() = default;
  ~DltSink() = delete;
  DltSink(const DltSink&) = delete;
  DltSink& operator=(const DltSink&) = delete;

  /// Before the first call of anything else.
  void Configure(std::string_view application, std::string_view description);
  /// Whether a daemon is there to take a message now; looks for one, at most twice a second, while
  /// none is. Never waits. `contexts` are registered when one is found.
  Readiness Ready(Context* contexts);
  /// For a context that was created later.
  void Register(Context& context);
  /// Only after Ready(). False: the daemon gets nothing of the message, because the context is not
  /// registered yet or the library refuses the message.
  bool Send(Context& context, LogLevel level, Arguments arguments);
  /// At exit: from now on Ready() says no. Lets the library wait for a slow daemon, never for none.
  void Close();

 private:
  enum class State : std::uint8_t { kNeverSeen, kConnected, kLost, kReturning, kClosed };

  bool OpenPipe();
  void ClosePipe();
  /// The one system call of a message beside the library's own. Asked without the lock, the answer
  /// counts only if state_ was kConnected before and still is after.
  [[nodiscard]] bool ReaderLives() const;
  void StartLibrary();
  void RegisterLocked(Context& context);

  std::string application_;
  std::string description_;
  std::atomic<State> state_ = State::kNeverSeen;
  std::atomic<std::int64_t> next_look_ =
      0;              ///< coarse clock, ns; relaxed: only spaces the look-ups
  std::mutex mutex_;  ///< guards the members below and registration; only ever tried while logging
  int pipe_ = -1;     ///< our own end of the daemon's pipe: it reports the reader's death
  int watch_ = -1;    ///< epoll of pipe_, which costs less to ask; set before kConnected, then kept
  bool library_started_ = false;
  std::size_t max_payload_ = 0;  ///< of a message; set before any context is registered, then kept
};

}  // namespace ara::log
