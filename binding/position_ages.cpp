#include "binding/position_ages.h"

#include <string>

namespace binding {

namespace {

/// A source's stamps and their arrivals may drift apart by this much between two notifications.
constexpr std::chrono::seconds jump{1};

}  // namespace

// A call would cost as much as a histogram.
[[gnu::always_inline]] inline void Position_ages::judge(Nanoseconds stamp, Nanoseconds arrival) {
  if (stamp > arrival) {
    in_future_.add();
    usable_stamp_ = Nanoseconds::max();
  } else {
    stamp_to_arrival_.add(arrival - stamp);
    usable_stamp_ = stamp;
  }
  if (last_stamp_.count() != 0) {
    const Nanoseconds step = stamp - last_stamp_;
    if (step.count() == 0) {
      standing_still_.add();
    } else if (step.count() < 0 || std::chrono::abs(step - (arrival - last_arrival_)) > jump) {
      jumped_.add();
    }
  }
  last_stamp_ = stamp;
}

void Position_ages::received(const boost::optional<Timestamp>& stamp,
                             mw::com::Arrival_time arrival,
                             Nanoseconds now) {
  notifications_.add();
  handler_ = now;
  Nanoseconds arrived = now;
  if (arrival != mw::com::Arrival_time{}) {
    arrived = arrival.time_since_epoch() + base_ahead_.load(std::memory_order_relaxed);
    arrival_to_handler_.add(now - arrived);
  }
  if (last_arrival_.count() != 0) between_.add(arrived - last_arrival_);
  if (stamp) {
    judge(stamp->since_epoch(), arrived);
  } else {
    missing_.add();
    usable_stamp_ = Nanoseconds::max();
  }
  last_arrival_ = arrived;
}

void Position_ages::each_second() {
  const std::lock_guard lock(mutex_);
  for (auto* histogram :
       {&stamp_to_arrival_, &arrival_to_handler_, &handler_to_sent_, &stamp_to_sent_, &between_})
    histogram->end_second();
}

std::vector<Age> Position_ages::ages() const {
  struct Named {
    const char* name;
    const Age_histogram& histogram;
  };
  const std::lock_guard lock(mutex_);
  std::vector<Age> ages;
  for (const auto& [name, histogram] :
       {Named{"stampToArrival", stamp_to_arrival_}, Named{"arrivalToHandler", arrival_to_handler_},
        Named{"handlerToSent", handler_to_sent_}, Named{"stampToSent", stamp_to_sent_},
        Named{"betweenArrivals", between_}}) {
    ages.push_back(histogram.since_start(name));
    ages.push_back(histogram.of_window(name));
  }
  return ages;
}

Stamp_counts Position_ages::stamps() const {
  return {.notifications = notifications_.value(),
          .missing = missing_.value(),
          .inFuture = in_future_.value(),
          .standingStill = standing_still_.value(),
          .jumped = jumped_.value()};
}

}  // namespace binding
