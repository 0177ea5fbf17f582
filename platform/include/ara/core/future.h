/// Results that arrive later: method calls and asynchronous tasks of the platform return them.
#pragma once

#include <chrono>
#include <exception>
#include <future>
#include <utility>

namespace ara::core {

enum class future_status { ready, timeout };

/// The receiving end. Movable, not copyable; used by one thread at a time.
template <typename T>
class Future {
 public:
  Future() = default;
  explicit Future(std::future<T> future) : future_(std::move(future)) {}

  /// False for a default-constructed future and after get().
  [[nodiscard]] bool valid() const noexcept { return future_.valid(); }
  /// Waits for the result and takes it. Throws the exception that the sending end has set, or
  /// std::future_error (broken_promise) if the sending end was destroyed without a result.
  T get() { return future_.get(); }
  void wait() const { future_.wait(); }

  template <typename Rep, typename Period>
  [[nodiscard]] future_status wait_for(const std::chrono::duration<Rep, Period>& time) const {
    // Waiting never makes a deferred std::future ready; Promise makes none.
    return future_.wait_for(time) == std::future_status::ready ? future_status::ready
                                                               : future_status::timeout;
  }
  template <typename Clock, typename Duration>
  [[nodiscard]] future_status wait_until(
      const std::chrono::time_point<Clock, Duration>& time) const {
    return future_.wait_until(time) == std::future_status::ready ? future_status::ready
                                                                 : future_status::timeout;
  }
  [[nodiscard]] bool is_ready() const {
    return wait_for(std::chrono::seconds::zero()) == future_status::ready;
  }

 private:
  std::future<T> future_;
};

/// The sending end. Call set_value or set_exception once: a second call throws std::future_error.
template <typename T>
class Promise {
 public:
  [[nodiscard]] Future<T> get_future() { return Future<T>(promise_.get_future()); }

  template <typename... Value>
  void set_value(Value&&... value) {
    promise_.set_value(std::forward<Value>(value)...);
  }
  void set_exception(std::exception_ptr exception) { promise_.set_exception(std::move(exception)); }

 private:
  std::promise<T> promise_;
};

}  // namespace ara::core
