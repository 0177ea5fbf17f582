/// The time base of this machine's environment, as the stamps of positions count it.
#pragma once

#include <chrono>

#include "ara/time/slave_time_base.h"

namespace posctl {

/// Throws std::runtime_error if the clock cannot be used.
[[nodiscard]] inline std::chrono::nanoseconds time_base_now() {
  using Proxy = ara::time::SlaveTimeBaseResourceProxy;
  return Proxy(Proxy::FindResource("synchronized")).asSynchSlave().getCurrentTime();
}

/// The lead of the time base before the system clock: 37 s if it is TAI, next to nothing if it is
/// the system clock. Throws as time_base_now() does.
[[nodiscard]] inline std::chrono::nanoseconds time_base_ahead() {
  const auto before = std::chrono::system_clock::now().time_since_epoch();
  const auto base = time_base_now();
  const auto after = std::chrono::system_clock::now().time_since_epoch();
  // The three readings take time: a time base that lies between them is the system clock.
  return before <= base && base <= after ? std::chrono::nanoseconds{} : base - before;
}

}  // namespace posctl
