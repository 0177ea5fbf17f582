/// The time base of this machine's environment, as the stamps of positions count it.
#pragma once

#include <chrono>

#include "ara/time/slave_time_base.h"
#include "binding/time_base.h"

namespace posctl {

/// Throws std::runtime_error if the clock cannot be used.
[[nodiscard]] inline std::chrono::nanoseconds time_base_now() {
  using Proxy = ara::time::SlaveTimeBaseResourceProxy;
  return Proxy(Proxy::FindResource("synchronized")).asSynchSlave().getCurrentTime();
}

/// The lead of the time base over the system clock. Throws like time_base_now().
[[nodiscard]] inline std::chrono::nanoseconds time_base_ahead() {
  return binding::lead_of(time_base_now);
}

}  // namespace posctl
