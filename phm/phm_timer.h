/// The periodic timer of the alive supervision.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

#include "ara/log/logger.h"

/// Calls a function once per period, each time on a thread of its own, never twice at once: a tick
/// during the previous call is dropped.
///
/// One thread calls start() and stop().
class Phm_timer {
 public:
  explicit Phm_timer(std::function<void()> callback);
  /// Stops. An exception meanwhile ends the process.
  ~Phm_timer();
  Phm_timer(const Phm_timer&) = delete;
  Phm_timer& operator=(const Phm_timer&) = delete;

  /// Makes the first call after `initial_delay`, then one per `period`. With period 0 there is only
  /// one call, on the timer thread itself, where an exception ends the process. Call start() only
  /// once: a second start over a thread that was not joined ends the process.
  void start(std::chrono::milliseconds period, std::chrono::milliseconds initial_delay);

  /// Returns when the current sleep (the initial delay or one period) and the pending call are
  /// over. Stopped during the initial delay, the timer still makes its one call.
  void stop();

 private:
  void loop(std::chrono::milliseconds initial_delay);
  void launch();
  void take_result();
  [[nodiscard]] bool running() const;

  ara::log::Logger& logger_;
  std::function<void()> callback_;
  /// Not zero while the timer runs. stop() writes it while the loop reads it; nothing else is
  /// published with it.
  std::atomic<std::chrono::milliseconds> period_{std::chrono::milliseconds::zero()};
  std::mutex mutex_;  ///< guards pending_ while it is replaced or its result is taken
  std::future<void> pending_;
  std::thread thread_;
};
