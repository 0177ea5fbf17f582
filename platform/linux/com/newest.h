/// A state of which a slow handler needs the newest only.
#pragma once

#include <mutex>
#include <optional>
#include <utility>

namespace tq::com {

/// Holds the newest value until the handler takes it; a newer value replaces it. Peers control the
/// rate of changes, so only one value waits. Thread-safe.
template <class Value>
class Newest {
 public:
  /// True if the handler has to be asked to take(): no value is waiting for it.
  [[nodiscard]] bool put(Value value) {
    const std::lock_guard lock(mutex_);
    const bool waiting = waiting_.has_value();
    waiting_ = std::move(value);
    return !waiting;
  }
  /// Once after each put() that was true.
  [[nodiscard]] Value take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(waiting_, std::nullopt).value();
  }

 private:
  std::mutex mutex_;  ///< guards the member below
  std::optional<Value> waiting_;
};

}  // namespace tq::com
