/// Results that arrive later: what method calls and asynchronous tasks of the platform return.
#pragma once

#include <chrono>
#include <exception>
#include <future>
#include <utility>

namespace ara::core {

enum class future_status { ready, timeout };

/// The receiving end. Movable, not copyable; one thread at a time.
template <typename T>
class Future {
 public:
  Future() = default;
  explicit Future(std::future<T> future) : future_(std::move(future)) {}

  /// False for a default-constructed future and after get().
  [[nodiscard]] bool valid() const noexcept { return future_.valid(); }
  /// Waits for the result and takes it; throws what the sending end set as exception, and
  /// std::future_error (broken_promise) when the sending end is gone without a result.
  T get() { return future_.get(); }
  void wait() const { future_.wait(); }

  template <typename Rep, typename Period>
  [[nodiscard]] future_status wait_for(const std::chrono::duration<Rep, Period>& time) const {
    // A deferred std::future never gets ready by waiting; none is made by Promise.
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

/// The sending end. set_value or set_exception once; a second time throws std::future_error.
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
