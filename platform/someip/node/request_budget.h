/// The bound on requests that wait for their answer.
#pragma once

#include <atomic>
#include <cstddef>
#include <utility>

#include "platform/someip/base/deployment.h"

namespace someip {

/// Counts the requests that a node has received and not answered yet, and their bytes, over all its
/// ports. Past a bound the node drops requests, so that a peer faster than the handlers cannot fill
/// the memory.
class Request_budget {
 public:
  explicit Request_budget(const Limits& limits)
      : most_(limits.queued_requests), most_bytes_(limits.queued_request_bytes) {}

  /// A place for a request of `bytes`, which its destructor gives back.
  class Place {
   public:
    Place(Request_budget& budget, std::size_t bytes)
        : budget_(budget.enter(bytes) ? &budget : nullptr), bytes_(bytes) {}
    Place(Place&& other) noexcept
        : budget_(std::exchange(other.budget_, nullptr)), bytes_(other.bytes_) {}
    Place& operator=(Place&&) = delete;
    ~Place() {
      if (budget_ != nullptr) budget_->leave(bytes_);
    }
    explicit operator bool() const { return budget_ != nullptr; }

   private:
    Request_budget* budget_;
    std::size_t bytes_;
  };

 private:
  bool enter(std::size_t bytes) {
    const auto before = taken_.fetch_add(1, std::memory_order_relaxed);
    const auto bytes_before = taken_bytes_.fetch_add(bytes, std::memory_order_relaxed);
    // A request larger than the bound is answered if it is alone.
    if (before < most_ && (before == 0 || bytes_before + bytes <= most_bytes_)) return true;
    leave(bytes);
    return false;
  }
  void leave(std::size_t bytes) {
    taken_bytes_.fetch_sub(bytes, std::memory_order_relaxed);
    taken_.fetch_sub(1, std::memory_order_relaxed);
  }

  const std::size_t most_;
  const std::size_t most_bytes_;
  std::atomic<std::size_t> taken_{0};  ///< relaxed, as the next: they guard nothing else
  std::atomic<std::size_t> taken_bytes_{0};
};

}  // namespace someip
