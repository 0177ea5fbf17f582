/// A thread that calls one function periodically.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace diagnosisService {

class Evaluation_timer {
 public:
  /// `work` must not throw and must not call stop().
  explicit Evaluation_timer(std::function<void()> work) : work_{std::move(work)} {}
  ~Evaluation_timer();
  Evaluation_timer(const Evaluation_timer&) = delete;
  Evaluation_timer& operator=(const Evaluation_timer&) = delete;

  /// Calls `work` after one period and then once in each period. A further call starts over with
  /// the new period. Does nothing after stop(). One thread calls it.
  void start(std::chrono::milliseconds period);
  /// Stops for good. Returns when `work` no longer runs. Any thread may call, any number of times.
  void stop();

 private:
  void run();

  const std::function<void()> work_;
  std::mutex mutex_;  ///< guards the members down to running_
  std::condition_variable changed_;
  std::chrono::milliseconds period_{};
  std::chrono::steady_clock::time_point next_;
  bool stopping_ = false;
  bool running_ = false;
  std::thread thread_;  ///< used by the owner's thread only
};

}  // namespace diagnosisService
