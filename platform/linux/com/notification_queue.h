/// The notifications of one element between the receiving thread and their handler.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

#include "mw/com/strand.h"
#include "platform/linux/com/newest.h"
#include "platform/someip/base/counters.h"
#include "platform/someip/base/deployment.h"
#include "platform/someip/base/workers.h"
#include "platform/someip/node/event_routes.h"
#include "tq/com/runtime.h"

namespace tq::com {

/// Calls the handler for one notification at a time, in order of arrival. While the handler runs,
/// the newest notifications wait, within the bounds of `limits`.
class Notification_queue final : public someip::Event_sink,
                                 public std::enable_shared_from_this<Notification_queue> {
 public:
  Notification_queue(std::uint8_t interface_version,
                     const someip::Limits& limits,
                     Notification_handler handler,
                     Subscription_state_handler on_state,
                     someip::Workers& workers,
                     someip::Counters& counters);
  ~Notification_queue() override;
  Notification_queue(const Notification_queue&) = delete;
  Notification_queue& operator=(const Notification_queue&) = delete;

  [[nodiscard]] bool enqueue(someip::Received notification) override;
  void run() override;
  void subscription_changed(bool active) override;
  /// Returns once no handler runs, except inside a handler.
  void close();
  [[nodiscard]] bool running_here() const { return strand_.running_in_this_thread(); }

 private:
  /// Displaces the oldest ones when there is no room. True if the strand has to be asked for one
  /// more.
  [[nodiscard]] bool add_waiting(someip::Received notification);
  /// Takes it out of waiting_, which has one.
  [[nodiscard]] someip::Received oldest_waiting();
  void take_waiting();
  void deliver(const someip::Received& notification);

  const std::size_t max_queued_;
  const std::size_t max_queued_bytes_;
  const Notification_handler handler_;
  const Subscription_state_handler on_state_;
  someip::Workers& workers_;
  someip::Counters& counters_;
  someip::Received first_;    ///< belongs to the thread that has claimed the strand
  std::mutex waiting_mutex_;  ///< guards the next three
  std::deque<someip::Received> waiting_;
  std::size_t waiting_bytes_ = 0;  ///< of the buffers in waiting_
  /// The number of take_waiting() that the strand still runs, at least one for each in waiting_.
  std::size_t asked_ = 0;
  bool active_ = false;  ///< the state that the handler saw last; touched on the strand only
  Newest<bool> newest_active_;
  mw::com::Strand strand_;
};

}  // namespace tq::com
