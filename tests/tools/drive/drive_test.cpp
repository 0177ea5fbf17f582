#include "tools/drive/drive.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <set>
#include <utility>

namespace drive {
namespace {

using namespace std::chrono_literals;

constexpr double metres_per_degree = 111'194;

double metres_north(const Sample& from, const Sample& to) {
  return (to.latitude - from.latitude) * metres_per_degree;
}
double metres_east(const Sample& from, const Sample& to) {
  return (to.longitude - from.longitude) * metres_per_degree *
         std::cos(from.latitude * std::numbers::pi / 180);
}
double turn(double from, double to) {
  return std::remainder(to - from, 360);
}

TEST(Drive, the_quantities_of_neighbouring_instants_agree_with_each_other) {
  const Course course;
  const auto step = 100ms;
  double right = 0;
  double left = 0;
  for (auto time = std::chrono::nanoseconds(0); time < course.lap_time() + 2 * step; time += step) {
    const Sample now = course.sample(time);
    const Sample middle = course.sample(time + step / 2);
    const Sample next = course.sample(time + step);
    ASSERT_GE(now.speed, -1e-9);
    ASSERT_LT(now.speed, 130 / 3.6);
    ASSERT_LT(std::abs(next.speed - now.speed), 3.0 * 0.1) << "3 m/s2";
    ASSERT_LT(std::abs(now.speed * now.yaw_rate * std::numbers::pi / 180), 4.5) << "lateral, m/s2";
    ASSERT_GE(now.heading, 0);
    ASSERT_LT(now.heading, 360);

    const double distance = std::hypot(metres_north(now, next), metres_east(now, next));
    ASSERT_NEAR(distance, middle.speed * 0.1, 0.02) << time.count();
    ASSERT_NEAR(turn(now.heading, next.heading), middle.yaw_rate * 0.1, 0.15) << time.count();
    ASSERT_NEAR(next.altitude_msl - now.altitude_msl, middle.climb * 0.1, 0.01);
    if (distance > 0.5) {
      const double direction =
          std::atan2(metres_east(now, next), metres_north(now, next)) * 180 / std::numbers::pi;
      ASSERT_NEAR(turn(direction, middle.heading), 0, 0.7) << time.count();
    }
    right = std::max(right, now.yaw_rate);
    left = std::min(left, now.yaw_rate);
  }
  EXPECT_GT(right, 5);
  EXPECT_LT(left, -3);
}

TEST(Drive, satellites_move_slowly_and_give_the_dilution_of_their_geometry) {
  const Course course;
  for (const std::size_t count : {0U, 4U, 24U, 61U}) {
    const Sky sky = course.sky(100s, count);
    const Sky later = course.sky(101s, count);
    ASSERT_EQ(sky.satellites.size(), std::min<std::size_t>(count, 60));
    std::set<std::pair<Gnss_system, int>> names;
    for (std::size_t index = 0; index < sky.satellites.size(); ++index) {
      const auto& satellite = sky.satellites[index];
      names.emplace(satellite.system, satellite.id);
      EXPECT_NEAR(satellite.elevation, 45, 45);
      EXPECT_NEAR(satellite.elevation, later.satellites[index].elevation, 0.05);
    }
    EXPECT_EQ(names.size(), sky.satellites.size());
    if (count < 24) continue;
    EXPECT_NEAR(sky.hdop, 2.15, 1.85);
    EXPECT_NEAR(sky.pdop, std::hypot(sky.hdop, sky.vdop), 1e-9);
    EXPECT_GT(sky.gdop, sky.pdop);
  }
}

}  // namespace
}  // namespace drive
