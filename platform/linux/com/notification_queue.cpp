#include "platform/linux/com/notification_queue.h"

#include <chrono>
#include <utility>
#include <vector>

#include "mw/com/arrival.h"

namespace tq::com {

namespace {

/// A notification that reaches its handler this long after its arrival is counted.
constexpr std::chrono::milliseconds late{100};

}  // namespace

Notification_queue::Notification_queue(std::uint8_t interface_version,
                                       const someip::Limits& limits,
                                       Notification_handler handler,
                                       Subscription_state_handler on_state,
                                       someip::Workers& workers,
                                       someip::Counters& counters)
    : Event_sink(interface_version),
      max_queued_(limits.queued_notifications),
      max_queued_bytes_(limits.queued_notification_bytes),
      handler_(std::move(handler)),
      on_state_(std::move(on_state)),
      workers_(workers),
      counters_(counters) {}

Notification_queue::~Notification_queue() {
  // The work that runs the strand holds a reference. If it has not run by now it never will: the
  // workers have stopped and dropped it.
  close();
  if (!strand_.running_in_this_thread()) strand_.run();
}

bool Notification_queue::enqueue(someip::Received notification) {
  if (strand_.claim()) {
    first_ = std::move(notification);
    return true;
  }
  return add_waiting(notification.kept()) && strand_.enqueue([this] { take_waiting(); });
}

bool Notification_queue::add_waiting(someip::Received notification) {
  std::vector<someip::Received> displaced;  // go after the lock
  const std::lock_guard lock(waiting_mutex_);
  waiting_bytes_ += notification.buffer.size();
  waiting_.push_back(std::move(notification));
  while (waiting_.size() > max_queued_ ||
         (waiting_bytes_ > max_queued_bytes_ && waiting_.size() > 1)) {
    displaced.push_back(oldest_waiting());
    counters_.notifications_displaced.add();
  }
  if (asked_ >= waiting_.size()) return false;
  ++asked_;
  return true;
}

someip::Received Notification_queue::oldest_waiting() {
  someip::Received oldest = std::move(waiting_.front());
  waiting_.pop_front();
  waiting_bytes_ -= oldest.buffer.size();
  return oldest;
}

void Notification_queue::take_waiting() {
  someip::Received oldest;
  {
    const std::lock_guard lock(waiting_mutex_);
    --asked_;
    if (waiting_.empty()) return;  // a large one displaced several, or closed since
    oldest = oldest_waiting();
  }
  deliver(oldest);
}

void Notification_queue::deliver(const someip::Received& notification) {
  if (someip::is_older_than(notification.arrival, late)) counters_.notifications_late.add();
  const mw::com::Handled_arrival handled(notification.arrival);
  handler_(notification.payload);
}

void Notification_queue::close() {
  strand_.close();
  const std::lock_guard lock(waiting_mutex_);
  waiting_.clear();
  waiting_bytes_ = 0;
}

void Notification_queue::run() {
  if (!first_.buffer.empty()) {
    strand_.run_claimed([this] {
      const someip::Received first = std::exchange(first_, {});
      deliver(first);
    });
  } else {
    strand_.run();
  }
}

void Notification_queue::subscription_changed(bool active) {
  if (!on_state_ || !newest_active_.put(active)) return;
  const bool free = strand_.enqueue([this] {
    const bool latest = newest_active_.take();
    if (std::exchange(active_, latest) != latest) on_state_(latest);
  });
  if (free) workers_.post([self = shared_from_this()] { self->strand_.run(); });
}

}  // namespace tq::com
