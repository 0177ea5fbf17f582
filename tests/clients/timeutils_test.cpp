#include "clients/timeutils.h"

#include <gtest/gtest.h>

#include "tests/clients/fixed_time.h"

namespace {

constexpr std::uint64_t period_ms = 1ULL << 31U;
constexpr std::uint64_t five_days_ms = 432'000'000;

TEST(Timeutils, expands_31_bits_to_the_period_within_five_days_of_the_last_read_or_the_one_before) {
  struct Case {
    std::uint64_t last_ms;
    std::uint64_t value;
    std::uint64_t expanded_ms;
  };
  for (const auto& [last_ms, value, expanded_ms] :
       {Case{period_ms + 5, 3, period_ms + 3}, Case{period_ms + 5, period_ms - 16, period_ms - 16},
        Case{period_ms + 5, 5 + five_days_ms, period_ms + 5 + five_days_ms},
        Case{period_ms + 5, 5 + five_days_ms + 1, 5 + five_days_ms + 1},
        Case{period_ms + five_days_ms, 0, period_ms},
        // 5 ms ahead, across the end of a period: taken for a value of the period's start, and that
        // for one of the period before.
        Case{2 * period_ms - 2, 3, 3}}) {
    Fixed_time time;
    time.now_us = last_ms * 1000 + 999;
    EXPECT_EQ(time.current_time_ms(), last_ms);
    EXPECT_EQ(time.current_time_31_bit_ms(), static_cast<std::int32_t>(last_ms % period_ms));
    time.now_us = 0;  // not the current time counts but the last read
    EXPECT_EQ(time.expand_31_bit_ms_to_us(static_cast<std::int32_t>(value)), expanded_ms * 1000);
  }
  EXPECT_EQ(Fixed_time{}.expand_31_bit_ms_to_us(9), 9U * 1000);
  EXPECT_EQ(timeutils::absolute_difference(0, ~0ULL), ~0ULL);
}

}  // namespace
