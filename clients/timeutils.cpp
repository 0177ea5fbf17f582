#include "clients/timeutils.h"

#include <chrono>
#include <string>

#include "ara/log/logger.h"

namespace {

constexpr std::uint64_t period_mask = 0x7fffffff;
constexpr std::uint64_t period = period_mask + 1;

/// A difference below this is within 5 days.
constexpr std::uint64_t tolerance_ms = 432'000'001;

ara::time::SlaveTimeBaseResourceProxy find_time_base() {
  const std::string name = "synchronized";
  return ara::time::SlaveTimeBaseResourceProxy{
      ara::time::SlaveTimeBaseResourceProxy::FindResource(name)};
}

}  // namespace

timeutils& timeutils::instance() {
  try {
    static timeutils the_instance;
    return the_instance;
  } catch (...) {
    ara::log::LogError() << "Critical error: failed to create instance of timeutils";
    throw;
  }
}

timeutils::timeutils() : resource_{find_time_base()}, time_base_{resource_.asSynchSlave()} {}

std::chrono::nanoseconds timeutils::now() const {
  return time_base_.getCurrentTime();
}

std::uint64_t timeutils::current_time_ms() const {
  return current_time_us() / 1000;
}

std::int32_t timeutils::current_time_31_bit_ms() {
  const auto now_ms = current_time_ms();
  last_full_ms_.store(now_ms, std::memory_order_relaxed);
  return static_cast<std::int32_t>(now_ms & period_mask);
}

std::uint64_t timeutils::expand_31_bit_ms_to_us(std::int32_t milliseconds) const {
  const auto value = static_cast<std::uint32_t>(milliseconds) & period_mask;
  const auto last_ms = last_full_ms_.load(std::memory_order_relaxed);
  const auto start_of_period = last_ms & ~period_mask;
  const auto same_period = start_of_period | value;
  if (absolute_difference(last_ms, same_period) < tolerance_ms) return same_period * 1000;
  return ((start_of_period - period) | value) * 1000;
}

void timeutils::set_offset(std::uint64_t offset) {
  offset_.store(offset, std::memory_order_relaxed);
}

std::uint64_t timeutils::add_offset(std::uint64_t value) const {
  return value + offset_.load(std::memory_order_relaxed);
}
