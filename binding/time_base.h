/// The lead of a time base before the system clock.
#pragma once

#include <chrono>

namespace binding {

/// 37 s for TAI, next to nothing for the system clock itself. `read` returns the present time of
/// the time base. Throws the exceptions of `read`.
template <class Read>
[[nodiscard]] std::chrono::nanoseconds lead_of(const Read& read) {
  const auto before = std::chrono::system_clock::now().time_since_epoch();
  const std::chrono::nanoseconds base = read();
  const auto after = std::chrono::system_clock::now().time_since_epoch();
  // The three readings take time: a time base that lies between them is the system clock.
  return before <= base && base <= after ? std::chrono::nanoseconds{} : base - before;
}

}  // namespace binding
