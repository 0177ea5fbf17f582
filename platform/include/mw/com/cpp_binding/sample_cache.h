/// The samples of a proxy's event that the application has not yet taken or not yet given back.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "ara/com/types.h"

namespace mw::com::cpp_binding::proxy {

/// Samples of one event between reception and the application: a bounded queue over recycled slots.
/// One thread at a time receives, one thread fetches, any thread may give back. The cache survives
/// its proxy as long as the application holds a sample.
template <class Value>
class Sample_cache : public std::enable_shared_from_this<Sample_cache<Value>> {
 public:
  using Slot = ara::com::SampleSlot<Value>;

  /// `capacity`: the samples that may wait plus the samples that the application may hold.
  explicit Sample_cache(std::size_t capacity) : capacity_{capacity} {}

  /// A free slot for decoding. There is always one beside the waiting and the held samples, so a
  /// payload that cannot be decoded costs none of these.
  [[nodiscard]] Slot& acquire() {
    for (const auto& slot : slots_) {
      if (!slot->taken.load(std::memory_order_acquire)) return *slot;
    }
    return *slots_.emplace_back(std::make_unique<Slot>());
  }
  /// Queues `sample`. If the cache is full, displaces the oldest waiting sample. Returns false if
  /// the application holds all samples.
  [[nodiscard]] bool push(Slot& sample) {
    const std::lock_guard lock{mutex_};
    if (full()) {
      if (waiting_.empty()) {
        sample.trim();
        return false;
      }
      waiting_.front()->release();
      waiting_.pop_front();
    }
    sample.taken.store(true, std::memory_order_relaxed);
    waiting_.push_back(&sample);
    any_waiting_.store(true, std::memory_order_relaxed);
    return true;
  }
  [[nodiscard]] ara::com::SamplePtr<Value> pop() {
    if (!any_waiting_.load(std::memory_order_relaxed)) return nullptr;
    const std::lock_guard lock{mutex_};
    if (waiting_.empty()) return nullptr;
    Slot* const sample = waiting_.front();
    waiting_.pop_front();
    any_waiting_.store(!waiting_.empty(), std::memory_order_relaxed);
    return {&sample->value, {this->shared_from_this(), sample}};
  }

 private:
  [[nodiscard]] bool full() const {
    if (slots_.size() <= capacity_) return false;  // one of them is free: that of the new sample
    const auto taken = [](const auto& slot) { return slot->taken.load(std::memory_order_relaxed); };
    return static_cast<std::size_t>(std::ranges::count_if(slots_, taken)) == capacity_;
  }

  const std::size_t capacity_;
  std::vector<std::unique_ptr<Slot>> slots_;  ///< used by the receiving thread only
  std::mutex mutex_;                          ///< guards waiting_
  std::deque<Slot*> waiting_;
  /// Saves taking the mutex. Relaxed: a notified thread finds the sample, and the mutex hands the
  /// sample itself over.
  std::atomic<bool> any_waiting_{false};
};

}  // namespace mw::com::cpp_binding::proxy
