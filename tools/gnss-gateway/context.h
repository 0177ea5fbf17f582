/// The part of a notification that does not come from the source.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace gateway {

struct Context {
  std::uint32_t message_counter = 0;
  std::chrono::nanoseconds precise_local_time{};
  std::optional<std::uint32_t> update_rate_hz;
};

}  // namespace gateway
