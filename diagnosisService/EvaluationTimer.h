/// A thread that calls one function periodically.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace diagnosisService {

class EvaluationTimer {
 public:
  /// `work` must not throw and must not call stop().
  explicit EvaluationTimer(std::function<void()> work) : work_{std::move(work)} {}
  ~EvaluationTimer();
  EvaluationTimer(const EvaluationTimer&) = delete;
  EvaluationTimer& operator=(const EvaluationTimer&) = delete;

  /// Starts the thread; the first call of `work` comes after one period. To be called once; does
  /// nothing after stop().
  void start(std::chrono::milliseconds period);
  /// For good. Returns once `work` does not run any more. Any thread, any number of times.
  void stop();

 private:
  void run(std::chrono::milliseconds period);

  const std::function<void()> work_;
  std::mutex mutex_;  ///< guards stopping_ and running_
  std::condition_variable changed_;
  bool stopping_ = false;
  bool running_ = false;
  std::thread thread_;  ///< touched by the owner's thread only
};

}  // namespace diagnosisService
