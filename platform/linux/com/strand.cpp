#include "mw/com/strand.h"

#include <utility>

namespace mw::com {

Strand::~Strand() {
  close();
  // A thread that got true from enqueue() must return from run() first.
  std::unique_lock lock(mutex_);
  finished_.wait(lock, [this] { return (state_ & owned) == 0 || running_in_this_thread(); });
}

bool Strand::enqueue(std::function<void()> work) {
  const std::lock_guard lock(mutex_);
  if ((state_ & closed) != 0) return false;
  queue_.push_back(std::move(work));
  return (state_.fetch_or(owned | queued) & owned) == 0;
}

bool Strand::claim() {
  unsigned expected = idle;
  return state_.compare_exchange_strong(expected, owned);
}

bool Strand::begin() {
  runner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  return (state_.fetch_or(running) & closed) == 0;
}

void Strand::run() {
  static_cast<void>(begin());
  run_queue();
}

void Strand::run_queue() {
  // The last access if it succeeds: no thread waits, but another one may now destroy the strand.
  unsigned expected = owned | running;
  if (state_.compare_exchange_strong(expected, idle)) return;
  std::unique_lock lock(mutex_);
  while (!queue_.empty()) {
    auto work = std::move(queue_.front());
    queue_.pop_front();
    lock.unlock();
    work();
    work = nullptr;  // its destructor may call this strand
    lock.lock();
  }
  state_ &= closed;
  // Under the lock: a waiting thread may destroy the strand as soon as it gets the lock.
  finished_.notify_all();
}

void Strand::close() {
  std::unique_lock lock(mutex_);
  state_ |= closed;
  auto dropped = std::exchange(queue_, {});
  lock.unlock();
  dropped.clear();
  lock.lock();
  finished_.wait(lock, [this] { return (state_ & running) == 0 || running_in_this_thread(); });
}

bool Strand::running_in_this_thread() const {
  return (state_ & running) != 0 &&
         runner_.load(std::memory_order_relaxed) == std::this_thread::get_id();
}

}  // namespace mw::com
