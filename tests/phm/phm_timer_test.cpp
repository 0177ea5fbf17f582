#include "phm/phm_timer.h"

#include <gtest/gtest.h>

#include <future>
#include <semaphore>
#include <thread>

#include "tests/support/capture.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

constexpr auto forever = std::chrono::milliseconds(24h);
constexpr auto patience = 10s;

TEST(Phm_timer, with_period_zero_calls_once_after_the_delay) {
  const test::Capture log;
  std::atomic<int> calls{0};
  std::promise<steady_clock::time_point> called;
  Phm_timer timer([&] {
    if (++calls == 1) called.set_value(steady_clock::now());
  });
  const auto start = steady_clock::now();
  timer.start(0ms, 40ms);
  auto result = called.get_future();
  ASSERT_EQ(result.wait_for(patience), std::future_status::ready);
  EXPECT_GE(result.get() - start, 40ms);
  timer.stop();
  timer.stop();
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(log.records().empty());
}

TEST(Phm_timer, a_slow_call_drops_ticks_and_never_overlaps_with_the_next) {
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  std::counting_semaphore<> started{0};
  Phm_timer timer([&] {
    if (++running > 1) overlapped = true;
    started.release();
    std::this_thread::sleep_for(50ms);
    --running;
  });
  const auto start = steady_clock::now();
  timer.start(20ms, 0ms);
  for (int call = 0; call < 4; ++call)
    ASSERT_TRUE(started.try_acquire_for(patience));
  // Ticks at 20 and 40 find the call running, the one at 60 starts the next. Calls that were queued
  // would follow each other every 50.
  EXPECT_GE(steady_clock::now() - start, 180ms);
  timer.stop();
  EXPECT_EQ(running, 0);
  EXPECT_FALSE(overlapped);
}

TEST(Phm_timer, goes_on_after_a_call_that_throws_and_stop_waits_for_the_pending_one) {
  const test::Capture log;
  std::binary_semaphore started{0};
  std::binary_semaphore released{0};
  Phm_timer timer([&] {
    started.release();
    released.acquire();
    throw 7;
  });
  timer.start(1ms, 0ms);
  ASSERT_TRUE(started.try_acquire_for(patience));
  released.release();
  ASSERT_TRUE(started.try_acquire_for(patience));
  EXPECT_TRUE(log.has("Error in timer function: unknown exception"));
  auto stopped = std::async(std::launch::async, [&] { timer.stop(); });
  EXPECT_EQ(stopped.wait_for(30ms), std::future_status::timeout);
  released.release();
  ASSERT_EQ(stopped.wait_for(patience), std::future_status::ready);
  EXPECT_EQ(log.records().size(), 2U);
}

TEST(Phm_timer, stopped_during_the_initial_delay_still_makes_one_call) {
  int calls = 0;
  Phm_timer timer([&] { ++calls; });
  const auto start = steady_clock::now();
  timer.start(forever, 60ms);
  timer.stop();
  EXPECT_GE(steady_clock::now() - start, 60ms);
  EXPECT_EQ(calls, 1);
}

}  // namespace
