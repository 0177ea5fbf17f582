/// Where handlers on other threads leave what they saw, and how a test waits for it.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace test {

/// What handlers saw, in order; a test waits for what it expects.
template <class Value>
class Seen {
 public:
  void add(Value value) {
    const std::lock_guard lock(mutex_);
    values_.push_back(std::move(value));
    changed_.notify_all();
  }
  [[nodiscard]] std::vector<Value> all() const {
    const std::lock_guard lock(mutex_);
    return values_;
  }
  /// False when the condition is not fulfilled in time.
  [[nodiscard]] bool wait(const std::function<bool(const std::vector<Value>&)>& condition,
                          std::chrono::milliseconds limit = std::chrono::seconds(30)) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return condition(values_); });
  }
  [[nodiscard]] bool wait_for(const Value& value) const {
    return wait([&](const auto& values) { return std::ranges::count(values, value) != 0; });
  }
  [[nodiscard]] bool wait_count(std::size_t count) const {
    return wait([&](const auto& values) { return values.size() >= count; });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<Value> values_;
};

/// For what nobody signals, such as counters: asked again and again until it is true or time is
/// over.
[[nodiscard]] inline bool eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace test
