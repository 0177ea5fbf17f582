/// The threads on which everything from the network runs: workers, their number fixed at
/// construction, and beside them those that its loop starts: one for control (service discovery,
/// timers, streams) and two that wait for notifications and responses.
#pragma once

#include <cstddef>
#include <memory>

namespace mw::com {

class static_thread_pool {
 public:
  /// `threads` must be at least 1. The workers start with all signals as the constructing thread
  /// has them blocked.
  explicit static_thread_pool(std::size_t threads);
  /// Stops and joins all of them; work that has not begun is dropped. Not callable from one.
  ~static_thread_pool();
  static_thread_pool(const static_thread_pool&) = delete;
  static_thread_pool& operator=(const static_thread_pool&) = delete;

  /// Same as the destructor's stop: idempotent, joins the threads.
  void stop();

  /// The event loop that the workers run; known to the platform's implementation only.
  class Loop;
  [[nodiscard]] Loop& loop() const { return *loop_; }

 private:
  std::unique_ptr<Loop> loop_;
};

}  // namespace mw::com
