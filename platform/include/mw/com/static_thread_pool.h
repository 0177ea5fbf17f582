/// The threads that run everything from the network. The number of workers is fixed at
/// construction. Beside them, one thread does control (service discovery, timers, streams). A node
/// starts two more threads, which receive its notifications and responses.
#pragma once

#include <cstddef>
#include <memory>

namespace mw::com {

class static_thread_pool {
 public:
  /// `threads` must be at least 1. The workers inherit the signal mask of the constructing thread.
  explicit static_thread_pool(std::size_t threads);
  /// Stops and joins all threads. Work that has not begun is dropped. None of these threads may
  /// call it.
  ~static_thread_pool();
  static_thread_pool(const static_thread_pool&) = delete;
  static_thread_pool& operator=(const static_thread_pool&) = delete;

  /// Stops and joins all threads, like the destructor. Idempotent.
  void stop();

  /// The event loop of the workers, known only to the platform's implementation.
  class Loop;
  [[nodiscard]] Loop& loop() const { return *loop_; }

 private:
  std::unique_ptr<Loop> loop_;
};

}  // namespace mw::com
