#include "phm/phm_timer.h"

#include <exception>
#include <string>
#include <system_error>
#include <utility>

Phm_timer::Phm_timer(std::function<void()> callback)
    : logger_(ara::log::CreateLogger("PHMT", "PHM Timer Logger")), callback_(std::move(callback)) {}

Phm_timer::~Phm_timer() {
  stop();
}

void Phm_timer::start(std::chrono::milliseconds period, std::chrono::milliseconds initial_delay) {
  period_ = period;
  try {
    thread_ = std::thread(&Phm_timer::loop, this, initial_delay);
  } catch (const std::system_error& error) {
    throw std::system_error(error.code(), "cannot start a thread for the alive checkpoints");
  }
}

void Phm_timer::stop() {
  period_ = std::chrono::milliseconds::zero();
  if (!thread_.joinable()) return;
  try {
    thread_.join();
  } catch (const std::exception& error) {
    logger_.LogError() << "Error when joining the timer thread:" << error.what();
  }
}

bool Phm_timer::running() const {
  return period_.load() != std::chrono::milliseconds::zero();
}

void Phm_timer::loop(std::chrono::milliseconds initial_delay) {
  std::this_thread::sleep_for(initial_delay);
  if (!running()) {
    callback_();
    return;
  }
  launch();
  for (;;) {
    std::this_thread::sleep_for(period_.load());
    if (!running()) break;
    if (pending_.valid()) {
      if (pending_.wait_for(std::chrono::seconds::zero()) != std::future_status::ready) continue;
      take_result();
    }
    launch();
  }
  if (pending_.valid()) {
    pending_.wait();
    take_result();
  }
}

void Phm_timer::launch() {
  try {
    std::future<void> call = std::async(std::launch::async, callback_);
    const std::lock_guard lock(mutex_);
    pending_ = std::move(call);
  } catch (const std::exception& error) {
    // No thread is available: this tick is lost, the next one tries again.
    logger_.LogError() << "Error in timer function:" << error.what();
  }
}

void Phm_timer::take_result() {
  std::string failure;
  try {
    const std::lock_guard lock(mutex_);
    pending_.get();
    return;
  } catch (const std::exception& error) {
    failure = error.what();
  } catch (...) {
    failure = "unknown exception";
  }
  logger_.LogError() << "Error in timer function:" << failure;
}
