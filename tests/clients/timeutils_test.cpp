#include "clients/timeutils.h"

#include <gmock/gmock.h>

#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

#include "ara/log/capture.h"
#include "tests/clients/fixed_time.h"

namespace {

constexpr std::uint64_t period_ms = 1ULL << 31U;
constexpr std::uint64_t five_days_ms = 432'000'000;

TEST(Timeutils, reads_microseconds_milliseconds_and_their_lower_31_bits) {
  Fixed_time time;
  time.now_us = 2500;
  EXPECT_EQ(time.currentTimeMs(), 2U);
  EXPECT_EQ(time.currentTime31BitMs(), 2);
  time.now_us = (3 * period_ms - 1) * 1000 + 999;
  EXPECT_EQ(time.currentTimeMs(), 3 * period_ms - 1);
  EXPECT_EQ(time.currentTime31BitMs(), 0x7fffffff);
}

std::uint64_t expand(std::uint64_t last_ms, std::uint64_t value) {
  Fixed_time time;
  time.now_us = last_ms * 1000;
  static_cast<void>(time.currentTime31BitMs());
  return time.expand31BitMsToUs(static_cast<std::int32_t>(value));
}

TEST(Expand31BitMsToUs, stays_in_the_period_within_five_days_and_else_goes_one_back) {
  EXPECT_EQ(expand(period_ms + 5, 3), (period_ms + 3) * 1000);
  EXPECT_EQ(expand(period_ms + 5, period_ms - 16), (period_ms - 16) * 1000);
  EXPECT_EQ(expand(period_ms + 5, 5 + five_days_ms), (period_ms + 5 + five_days_ms) * 1000);
  EXPECT_EQ(expand(period_ms + 5, 5 + five_days_ms + 1), (5 + five_days_ms + 1) * 1000);
  EXPECT_EQ(expand(period_ms + five_days_ms, 0), period_ms * 1000);
}

TEST(Expand31BitMsToUs, never_looks_into_the_next_period) {
  // 5 ms ahead, across the end of a period: taken for a value of the period's start, and that for
  // one of the period before.
  EXPECT_EQ(expand(2 * period_ms - 2, 3), 3U * 1000);
}

TEST(Expand31BitMsToUs, uses_the_last_31_bit_read_not_the_current_time) {
  Fixed_time time;
  time.now_us = 7 * period_ms * 1000;
  EXPECT_EQ(time.expand31BitMsToUs(9), 9U * 1000);
  static_cast<void>(time.currentTime31BitMs());
  EXPECT_EQ(time.expand31BitMsToUs(9), (7 * period_ms + 9) * 1000);
}

TEST(Timeutils, adds_the_offset_that_was_set_last) {
  Fixed_time time;
  EXPECT_EQ(time.addOffset(10), 10U);
  time.setOffset(5);
  time.setOffset(7);
  EXPECT_EQ(time.addOffset(10), 17U);
  EXPECT_EQ(timeutils::absoluteDifference(3, 10), 7U);
  EXPECT_EQ(timeutils::absoluteDifference(10, 3), 7U);
  EXPECT_EQ(timeutils::absoluteDifference(0, ~0ULL), ~0ULL);
}

TEST(Timeutils, tells_and_throws_when_there_is_no_time_base_and_is_created_once_there_is) {
  const ara::log::Capture capture;
  ASSERT_EQ(setenv("POS_TIME_BASE", "CLOCK_OF_NOBODY", 1), 0);
  EXPECT_THROW(static_cast<void>(timeutils::instance()), std::runtime_error);
  EXPECT_TRUE(capture.Has("Critical error: failed to create instance of timeutils"));
  EXPECT_EQ(capture.Records().front().level, ara::log::LogLevel::kError);
  ASSERT_EQ(setenv("POS_TIME_BASE", "CLOCK_REALTIME", 1), 0);

  std::vector<const timeutils*> seen(8);
  {
    std::vector<std::jthread> threads;
    threads.reserve(seen.size());
    for (auto& place : seen)
      threads.emplace_back([&place] { place = &timeutils::instance(); });
  }
  EXPECT_THAT(seen, ::testing::Each(&timeutils::instance()));

  const auto system_us = [] {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                          std::chrono::system_clock::now().time_since_epoch())
                                          .count());
  };
  const auto before = system_us();
  const auto now = timeutils::instance().currentTimeUs();
  EXPECT_LE(before, now);
  EXPECT_LE(now, system_us());
}

}  // namespace
