/// Admits calls until it is closed, and waits then for the calls that it has admitted.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>
#include <vector>

namespace tq::com {

class Gate {
 public:
  /// A call that is inside, or that was refused.
  class Pass {
   public:
    explicit Pass(Gate& gate) : gate_(gate.enter() ? &gate : nullptr) {}
    ~Pass() {
      if (gate_ != nullptr) gate_->leave();
    }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;
    explicit operator bool() const { return gate_ != nullptr; }

   private:
    Gate* gate_;
  };

  /// Refuses later calls. Returns once all admitted calls have ended, except those of the calling
  /// thread.
  void close() {
    std::unique_lock lock(mutex_);
    closed_ = true;
    left_.wait(lock, [this, self = std::this_thread::get_id()] {
      return std::ranges::all_of(inside_, [&](const auto& id) { return id == self; });
    });
  }

 private:
  bool enter() {
    const std::lock_guard lock(mutex_);
    if (closed_) return false;
    inside_.push_back(std::this_thread::get_id());
    return true;
  }
  void leave() {
    const std::lock_guard lock(mutex_);
    inside_.erase(std::ranges::find(inside_, std::this_thread::get_id()));
    // Under the lock: the thread in close() may destroy the gate as soon as it gets the lock.
    left_.notify_all();
  }

  std::mutex mutex_;  ///< guards the members below
  std::condition_variable left_;
  std::vector<std::thread::id> inside_;
  bool closed_ = false;
};

}  // namespace tq::com
