/// The threads of a node, played one after the other by the fuzzer.
#pragma once

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "fuzz/input.h"
#include "platform/someip/base/workers.h"

namespace fuzz {

class Player final : public someip::Workers {
 public:
  boost::asio::io_context& control() override { return control_; }
  void post(std::function<void()> work) override {
    const std::lock_guard lock(mutex_);
    posted_.push_back(std::move(work));
  }
  Watch watch(int, std::shared_ptr<someip::Readable> reader) override {
    const std::lock_guard lock(mutex_);
    readers_.emplace(++last_, std::move(reader));
    return Watch{last_};
  }
  void unwatch(Watch watch, int) override {
    const std::lock_guard lock(mutex_);
    readers_.erase(static_cast<std::uint64_t>(watch));
  }

  /// Runs all work, and the work that follows from it.
  void settle() {
    constexpr int more_than_any_input_needs = 1000;
    for (int round = 0; round < more_than_any_input_needs; ++round) {
      control_.restart();
      std::size_t work = control_.poll();
      for (auto& task : std::exchange(posted_, {})) {
        ++work;
        task();
      }
      if (work == 0) return;
    }
    require(false, "the work that an input causes has an end");
  }
  /// The clock, which is not the system's, has been set forward: the control thread looks at its
  /// timers.
  void time_has_passed() {
    boost::asio::steady_timer look(control_, boost::asio::steady_timer::time_point::min());
    look.async_wait([](const auto&) {});
    settle();
  }
  /// Workers look at all sockets.
  void read() {
    const auto readers = readers_;
    for (const auto& [watch, reader] : readers)
      reader->on_readable();
    settle();
  }
  /// Runs `work`, which waits for the control thread, beside it.
  template <class Work>
  void beside(Work&& work) {
    control_.restart();
    const auto guard = boost::asio::make_work_guard(control_);
    std::thread thread([&] {
      work();
      control_.stop();
    });
    control_.run();
    thread.join();
  }
  [[nodiscard]] bool idle() const { return posted_.empty() && readers_.empty(); }

 private:
  boost::asio::io_context control_{1};
  std::mutex mutex_;  ///< guards the others while the node stops on another thread
  std::deque<std::function<void()>> posted_;
  std::uint64_t last_ = 0;
  std::map<std::uint64_t, std::shared_ptr<someip::Readable>> readers_;
};

}  // namespace fuzz
