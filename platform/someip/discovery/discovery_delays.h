/// How long the entries of service discovery wait before they leave.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <random>

#include "platform/someip/base/deployment.h"
#include "platform/someip/base/time.h"

namespace someip {

/// The delays of entries. If entries already wait in their first phase or in the gathering, later
/// ones get the same departure time. All of them then leave in one message (someipsd_65).
class Discovery_delays {
 public:
  explicit Discovery_delays(const Discovery_timing& timing)
      : timing_(timing), random_(std::random_device{}()) {}

  [[nodiscard]] Time end_of_initial_wait(Time now) {
    if (initial_wait_end_ <= now) {
      initial_wait_end_ = now + between(timing_.initial_delay_min, timing_.initial_delay_max);
    }
    return initial_wait_end_;
  }
  [[nodiscard]] Milliseconds repetition(std::uint32_t sent) const {
    return timing_.repetitions_base_delay * (1u << std::min(sent, 16u));
  }
  /// The departure time of entries that the process itself causes: subscriptions, their ends and
  /// stop offers. The process often causes several at once, and all of them leave together.
  [[nodiscard]] Time end_of_gathering(Time now) {
    if (gathering_end_ <= now) gathering_end_ = now + timing_.request_response_delay_max;
    return gathering_end_;
  }
  [[nodiscard]] Time answer_to_multicast(Time now) {
    return now + between(timing_.request_response_delay_min, timing_.request_response_delay_max);
  }

 private:
  [[nodiscard]] std::chrono::microseconds between(Milliseconds low, Milliseconds high) {
    using std::chrono::microseconds;
    std::uniform_int_distribution<std::int64_t> distribution(microseconds(low).count(),
                                                             microseconds(high).count());
    return microseconds(distribution(random_));
  }

  const Discovery_timing& timing_;
  std::mt19937 random_;
  Time initial_wait_end_{};
  Time gathering_end_{};
};

}  // namespace someip
