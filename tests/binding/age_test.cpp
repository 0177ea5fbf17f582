#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "binding/position_ages.h"

namespace {

using binding::Age;
using binding::Age_histogram;
using binding::Position_ages;
using binding::Timestamp;
using namespace std::chrono_literals;
using Nanoseconds = std::chrono::nanoseconds;

/// The value that a share of all does not exceed.
double exact(std::vector<std::int64_t>& values, double share) {
  std::ranges::sort(values);
  const auto rank = std::ceil(share * static_cast<double>(values.size()));
  return static_cast<double>(values[static_cast<std::size_t>(std::max(rank, 1.0)) - 1]);
}

void expect_near(std::uint64_t told, double right) {
  EXPECT_NEAR(static_cast<double>(told), right, 0.009 * right);
}

TEST(Age_histogram, percentiles_are_right_from_nanoseconds_to_hours) {
  std::mt19937_64 random(1);
  for (const double scale : {10.0, 1e3, 1e5, 1e9, 1e12}) {
    std::lognormal_distribution<double> distribution(std::log(scale), 1.0);
    Age_histogram histogram;
    std::vector<std::int64_t> values(5001);
    for (auto& value : values) {
      value = static_cast<std::int64_t>(std::min(distribution(random), 1.7e13));
      histogram.add(Nanoseconds{value});
    }
    histogram.add(Nanoseconds{-1});  // counts nowhere
    const Age age = histogram.since_start("x");
    EXPECT_EQ(age.count, values.size());
    expect_near(age.minNs, exact(values, 0));
    expect_near(age.p50Ns, exact(values, 0.5));
    expect_near(age.p99Ns, exact(values, 0.99));
    expect_near(age.p999Ns, exact(values, 0.999));
    expect_near(age.maxNs, exact(values, 1));
  }
}

TEST(Age_histogram, the_window_forgets_what_is_older) {
  Age_histogram histogram;
  histogram.add(1s);
  histogram.end_second();
  for (std::uint32_t second = 1; second < Age_histogram::window; ++second) {
    histogram.add(1ms);
    histogram.end_second();
  }
  EXPECT_EQ(histogram.of_window("x").count, 10u);
  expect_near(histogram.of_window("x").maxNs, 1e9);
  histogram.end_second();
  EXPECT_EQ(histogram.of_window("x").count, 9u);
  expect_near(histogram.of_window("x").maxNs, 1e6);
  EXPECT_EQ(histogram.since_start("x").count, 10u);
  histogram.add(24h);
  expect_near(histogram.since_start("x").maxNs, 1.75e13);  // in the last bucket
}

TEST(Position_ages, each_part_of_the_path_has_its_age_and_each_fault_of_a_stamp_its_count) {
  Position_ages ages;
  ages.set_base_ahead(37s);  // the time base is TAI
  // Arrivals by the system clock, 100 ms apart; stamps by the time base, relative to the arrival.
  Nanoseconds arrival = 1'700'000'000s;
  const auto notify = [&](boost::optional<Nanoseconds> age) {
    arrival += 100ms;
    boost::optional<Timestamp> stamp;
    if (age) stamp = Timestamp::of(arrival + 37s - *age);
    ages.received(stamp, mw::com::Arrival_time{arrival}, arrival + 37s + 2ms);
    ages.sent(arrival + 37s + 5ms);
  };
  notify(Nanoseconds{20ms});
  notify(Nanoseconds{20ms});
  notify(Nanoseconds{120ms});  // stands still
  notify(Nanoseconds{2s});     // backwards
  notify(Nanoseconds{-50ms});  // jumps, into the future
  notify(Nanoseconds{0});
  notify(boost::none);
  const auto counts = ages.stamps();
  EXPECT_EQ(counts.notifications, 7u);
  EXPECT_EQ(counts.missing, 1u);
  EXPECT_EQ(counts.inFuture, 1u);
  EXPECT_EQ(counts.standingStill, 1u);
  EXPECT_EQ(counts.jumped, 2u);

  const auto told = ages.ages();
  const auto since_start = [&](std::string_view name) {
    return *std::ranges::find_if(
        told, [&](const Age& one) { return one.name == name && one.windowS == 0; });
  };
  EXPECT_EQ(since_start("stampToArrival").count, 5u);
  expect_near(since_start("stampToArrival").p50Ns, 20e6);
  expect_near(since_start("arrivalToHandler").p99Ns, 2e6);
  expect_near(since_start("handlerToSent").p99Ns, 3e6);
  // The whole: of each notification with a stamp that is not in the future.
  EXPECT_EQ(since_start("stampToSent").count, 5u);
  expect_near(since_start("stampToSent").p50Ns, 25e6);
  EXPECT_EQ(since_start("betweenArrivals").count, 6u);
  expect_near(since_start("betweenArrivals").maxNs, 100e6);
}

}  // namespace
