/// The time at which the notification arrived that the calling thread handles.
#pragma once

#include <chrono>
#include <utility>

namespace mw::com {

/// Of the system clock (CLOCK_REALTIME); its epoch if unknown, as over TCP.
using Arrival_time = std::chrono::sys_time<std::chrono::nanoseconds>;

/// The runtime keeps one of these while it runs the handler of a notification.
class Handled_arrival {
 public:
  explicit Handled_arrival(Arrival_time arrival) : outer_(std::exchange(current_, arrival)) {}
  ~Handled_arrival() { current_ = outer_; }
  Handled_arrival(const Handled_arrival&) = delete;
  Handled_arrival& operator=(const Handled_arrival&) = delete;

  /// Of the notification whose handler runs on this thread; unknown outside of handlers.
  [[nodiscard]] static Arrival_time current() { return current_; }

 private:
  static inline constinit thread_local Arrival_time current_{};
  const Arrival_time outer_;
};

}  // namespace mw::com
