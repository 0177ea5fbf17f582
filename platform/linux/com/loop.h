/// The threads behind mw::com::static_thread_pool. Only the platform's own sources include this.
#pragma once

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "mw/com/static_thread_pool.h"
#include "platform/someip/base/workers.h"

namespace mw::com {

/// Every worker waits on one epoll descriptor. For an arrival the kernel wakes exactly one of them,
/// the one that went idle last. A worker that is busy in a handler does not wait. That saves the
/// hand-over from a polling thread to a working one, which a shared event loop pays for each
/// datagram.
class static_thread_pool::Loop final : public someip::Workers {
 public:
  explicit Loop(std::size_t threads);
  ~Loop() override;
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  [[nodiscard]] boost::asio::io_context& control() override { return control_; }
  void post(std::function<void()> work) override;
  [[nodiscard]] Watch watch(int descriptor, std::shared_ptr<someip::Readable> reader) override;
  [[nodiscard]] bool start_thread(std::function<void()> work) override;
  void unwatch(Watch watch, int descriptor) override;
  void stop();

 private:
  void work() noexcept;
  void run_posted();
  void run_reader(std::uint64_t id);

  boost::asio::io_context control_{1};
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> control_guard_;
  int epoll_ = -1;
  int posted_event_ = -1;  ///< edge-triggered: one worker wakes for each write
  int stop_event_ = -1;    ///< level-triggered: every worker sees it
  std::mutex mutex_;       ///< guards the members below but stopping_; never held while work runs
  std::deque<std::function<void()>> posted_;
  std::unordered_map<std::uint64_t, std::shared_ptr<someip::Readable>> readers_;
  std::uint64_t next_id_;
  std::atomic<bool> stopping_{false};
  std::once_flag stopped_;
  std::vector<std::thread> threads_;
};

}  // namespace mw::com
