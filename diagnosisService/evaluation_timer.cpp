#include "diagnosisService/evaluation_timer.h"

#include <algorithm>
#include <system_error>

namespace diagnosisService {

Evaluation_timer::~Evaluation_timer() {
  stop();
  if (thread_.joinable()) thread_.join();
}

void Evaluation_timer::start(std::chrono::milliseconds period) {
  const std::lock_guard lock{mutex_};
  if (stopping_) return;
  period_ = period;
  next_ = std::chrono::steady_clock::now() + period;
  changed_.notify_all();
  if (running_) return;
  try {
    thread_ = std::thread{[this] { run(); }};
  } catch (const std::system_error& error) {
    throw std::system_error{error.code(), "cannot start a thread for the evaluation of statuses"};
  }
  running_ = true;
}

void Evaluation_timer::stop() {
  std::unique_lock lock{mutex_};
  stopping_ = true;
  changed_.notify_all();
  changed_.wait(lock, [this] { return !running_; });
}

void Evaluation_timer::run() {
  std::unique_lock lock{mutex_};
  while (!stopping_) {
    const auto now = std::chrono::steady_clock::now();
    if (const auto next = next_; now < next) {
      changed_.wait_until(lock, next);
      continue;
    }
    // After a long pause of the whole machine, one evaluation is enough.
    next_ = std::max(next_, now - period_) + period_;
    lock.unlock();
    work_();
    lock.lock();
  }
  running_ = false;
  changed_.notify_all();
}

}  // namespace diagnosisService
