/// How old positions are on their way through the application, and whether their stamps make sense.
#pragma once

#include <array>
#include <atomic>
#include <boost/optional.hpp>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <vector>

#include "binding/age_histogram.h"
#include "binding/timestamp.h"
#include "mw/com/arrival.h"

namespace binding {

/// The stamps of the notifications of positions, as the source sent them.
struct Stamp_counts {
  std::uint64_t notifications = 0;
  std::uint64_t missing = 0;
  std::uint64_t inFuture = 0;       ///< later than the arrival; their age is not in a histogram
  std::uint64_t standingStill = 0;  ///< the same as the one before
  std::uint64_t jumped = 0;  ///< backwards, or over a second off the time since the one before
};

/// The five ages of each notification: stamp to arrival, arrival to handler, handler to sent
/// position, stamp to sent position, and the time since the notification before.
/// One thread at a time calls received() and sent(), which take no lock and no memory; any thread
/// calls the others.
class Position_ages {
 public:
  using Nanoseconds = std::chrono::nanoseconds;

  /// A handler has begun at `now` of the time base, for a notification that arrived at `arrival`.
  void received(const boost::optional<Timestamp>& stamp,
                mw::com::Arrival_time arrival,
                Nanoseconds now);
  /// The position of the notification that was received last has been sent.
  void sent(Nanoseconds now) {
    handler_to_sent_.add(now - handler_);
    stamp_to_sent_.add(now - usable_stamp_);
  }

  /// The lead of the time base before the system clock.
  void set_base_ahead(Nanoseconds lead) { base_ahead_.store(lead, std::memory_order_relaxed); }
  /// Ends a second of the windows.
  void each_second();

  /// Of each histogram, since the start and over the window.
  [[nodiscard]] std::vector<Age> ages() const;
  [[nodiscard]] Stamp_counts stamps() const;

 private:
  /// One thread at a time writes.
  class Count {
   public:
    void add() { value_.store(value() + 1, std::memory_order_relaxed); }
    [[nodiscard]] std::uint64_t value() const { return value_.load(std::memory_order_relaxed); }

   private:
    std::atomic<std::uint64_t> value_{0};
  };

  void judge(Nanoseconds stamp, Nanoseconds arrival);

  std::atomic<Nanoseconds> base_ahead_{Nanoseconds{}};
  Age_histogram stamp_to_arrival_, arrival_to_handler_, handler_to_sent_, stamp_to_sent_, between_;
  Count notifications_, missing_, in_future_, standing_still_, jumped_;
  mutable std::mutex mutex_;  ///< guards the windows of the histograms

  // The receiving thread's own.
  Nanoseconds handler_{};
  Nanoseconds last_arrival_{};  ///< 0: none
  Nanoseconds last_stamp_{};    ///< 0: none
  /// Of the last notification. Without one, or with one in the future, its age is negative, which
  /// no histogram counts.
  Nanoseconds usable_stamp_ = Nanoseconds::max();
};

}  // namespace binding
