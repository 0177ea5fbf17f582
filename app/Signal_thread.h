/// The process's signals as calls on an ordinary thread.
#pragma once

#include <atomic>
#include <thread>

/// Waits for SIGINT, SIGTERM, SIGUSR1 and SIGUSR2 and calls one plain function for each. The
/// function runs beside the other threads and never on top of one, so it may log and lock.
class Signal_thread {
 public:
  using Handler = void (*)(int signal);

  /// Blocks the four signals in the calling thread and in all threads that it starts later. To be
  /// called before the process has a second thread.
  static void blockSignals();

  /// Signals that have arrived since blockSignals() are handled before this returns, on the calling
  /// thread. What `handler` throws later ends the process.
  explicit Signal_thread(Handler handler);
  /// Waits for a handler call under way. The signals stay blocked: they end nothing any more.
  ~Signal_thread();
  Signal_thread(const Signal_thread&) = delete;
  Signal_thread& operator=(const Signal_thread&) = delete;

 private:
  std::atomic<bool> ending_{false};  ///< set before the signal that wakes the thread
  std::thread thread_;
};
