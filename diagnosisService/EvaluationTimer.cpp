#include "diagnosisService/EvaluationTimer.h"

#include <algorithm>
#include <system_error>

namespace diagnosisService {

EvaluationTimer::~EvaluationTimer() {
  stop();
  if (thread_.joinable()) thread_.join();
}

void EvaluationTimer::start(std::chrono::milliseconds period) {
  const std::lock_guard lock{mutex_};
  if (stopping_ || running_) return;
  try {
    thread_ = std::thread{[this, period] { run(period); }};
  } catch (const std::system_error& error) {
    throw std::system_error{error.code(), "cannot start a thread for the evaluation of statuses"};
  }
  running_ = true;
}

void EvaluationTimer::stop() {
  std::unique_lock lock{mutex_};
  stopping_ = true;
  changed_.notify_all();
  changed_.wait(lock, [this] { return !running_; });
}

void EvaluationTimer::run(std::chrono::milliseconds period) {
  std::unique_lock lock{mutex_};
  auto next = std::chrono::steady_clock::now() + period;
  while (!changed_.wait_until(lock, next, [this] { return stopping_; })) {
    lock.unlock();
    work_();
    lock.lock();
    // After a long pause of the whole machine, one evaluation is enough.
    next = std::max(next, std::chrono::steady_clock::now() - period) + period;
  }
  running_ = false;
  changed_.notify_all();
}

}  // namespace diagnosisService
