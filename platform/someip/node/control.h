/// The control thread as the parts of one node use it.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <utility>

#include "platform/someip/base/time.h"
#include "platform/someip/base/workers.h"

namespace someip {

/// Runs the work of a node on the control thread, until the node stops.
class Control {
 public:
  explicit Control(Workers& workers) : loop_(workers.control()) {}

  /// From any thread, until the node has stopped.
  void post(std::function<void()> work) {
    boost::asio::post(loop_, [this, work = std::move(work)] {
      if (!stopped_) work();
    });
  }
  [[nodiscard]] boost::asio::io_context& loop() { return loop_; }

  // On the control thread

  /// No work begins after it.
  void stop() { stopped_ = true; }
  [[nodiscard]] bool stopped() const { return stopped_; }

 private:
  boost::asio::io_context& loop_;
  bool stopped_ = false;  ///< the control thread's own
};

/// Runs one piece of work at a time of its own. Lives on the control thread.
class Control_timer {
 public:
  explicit Control_timer(Control& control) : control_(control), timer_(control.loop()) {}

  /// Replaces the work that waits.
  void run_at(Time when, std::function<void()> work) {
    timer_.expires_at(when);
    timer_.async_wait([this, work = std::move(work)](const boost::system::error_code& cancelled) {
      if (!cancelled && !control_.stopped()) work();
    });
  }
  void cancel() { timer_.cancel(); }

 private:
  Control& control_;
  boost::asio::steady_timer timer_;
};

}  // namespace someip
