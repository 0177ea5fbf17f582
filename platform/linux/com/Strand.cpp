#include "mw/com/Strand.h"

#include <utility>

namespace mw::com {

Strand::~Strand() {
  close();
  // Whoever got true from enqueue() still has to come back from run().
  std::unique_lock lock(mutex_);
  idle_.wait(lock, [this] { return !busy_ || runner_ == std::this_thread::get_id(); });
}

bool Strand::enqueue(std::function<void()> work) {
  const std::lock_guard lock(mutex_);
  if (closed_) return false;
  queue_.push_back(std::move(work));
  return !std::exchange(busy_, true);
}

bool Strand::claim() {
  const std::lock_guard lock(mutex_);
  return !closed_ && !std::exchange(busy_, true);
}

bool Strand::begin() {
  const std::lock_guard lock(mutex_);
  if (closed_) return false;
  runner_ = std::this_thread::get_id();
  return true;
}

void Strand::run() {
  std::unique_lock lock(mutex_);
  runner_ = std::this_thread::get_id();
  while (!queue_.empty()) {
    auto work = std::move(queue_.front());
    queue_.pop_front();
    lock.unlock();
    work();
    work = nullptr;  // what it holds may call back when it goes
    lock.lock();
  }
  runner_ = {};
  busy_ = false;
  // Under the lock: the one who waits may destroy the strand as soon as it gets the lock.
  idle_.notify_all();
}

void Strand::dispatch(std::function<void()> work) {
  if (enqueue(std::move(work))) run();
}

void Strand::close() {
  std::unique_lock lock(mutex_);
  closed_ = true;
  auto dropped = std::exchange(queue_, {});
  lock.unlock();
  dropped.clear();
  lock.lock();
  idle_.wait(lock, [this] {
    return runner_ == std::thread::id{} || runner_ == std::this_thread::get_id();
  });
}

bool Strand::running_in_this_thread() const {
  const std::lock_guard lock(mutex_);
  return runner_ == std::this_thread::get_id();
}

}  // namespace mw::com
