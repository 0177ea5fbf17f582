/// Turns the process's signals into calls on an ordinary thread.
#pragma once

#include <atomic>
#include <thread>

/// Waits for SIGINT, SIGTERM, SIGUSR1 and SIGUSR2 and calls one plain function for each. The
/// function runs beside the other threads and never on top of one, so it may log and lock.
class Signal_thread {
 public:
  using Handler = void (*)(int signal);

  /// Blocks the four signals in the calling thread and in all threads that it starts later. Call it
  /// before the process has a second thread.
  static void block_signals();

  /// Handles the signals that have arrived since block_signals() on the calling thread, before it
  /// returns. Later, an exception from `handler` ends the process.
  explicit Signal_thread(Handler handler);
  /// Waits for a handler call under way. The signals stay blocked: they no longer end the process.
  ~Signal_thread();
  Signal_thread(const Signal_thread&) = delete;
  Signal_thread& operator=(const Signal_thread&) = delete;

 private:
  std::atomic<bool> ending_{false};  ///< set before the signal that wakes the thread
  std::thread thread_;
};
