#include <gmock/gmock.h>

#include <cmath>
#include <fstream>
#include <numbers>
#include <set>
#include <string>
#include <vector>

#include "tests/support/error_of.h"
#include "tools/drive/course.h"
#include "tools/drive/route.h"

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

/// `right` and `left` become the sharpest turns, in degrees per second.
void expect_consistency(const Course& course, double& right, double& left) {
  const auto step = 100ms;
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
}

TEST(Drive, the_quantities_of_neighbouring_instants_agree_with_each_other) {
  double right = 0;
  double left = 0;
  expect_consistency(Course(), right, left);
  EXPECT_GT(right, 5);
  EXPECT_LT(left, -3);
}

class Route_file : public testing::Test {
 public:
  Route_file() : path(testing::TempDir() + "route.gpx") {}
  ~Route_file() override { std::remove(path.c_str()); }

 protected:
  Route read(const std::string& points) const {
    std::ofstream(path) << R"(<?xml version="1.0"?><gpx version="1.1"><trk><trkseg>)" << points
                        << "</trkseg></trk></gpx>";
    return read_gpx(path);
  }
  static std::string point(double latitude, double longitude, const std::string& content = "") {
    return "<trkpt lat=\"" + std::to_string(latitude) + "\" lon=\"" + std::to_string(longitude) +
           "\">" + content + "</trkpt>";
  }
  const std::string path;
};

TEST_F(Route_file, a_vehicle_passes_the_points_at_their_speeds_and_stands_where_it_stood) {
  // Corners to both sides, one too narrow for any vehicle, a turn back, a tunnel, a stay.
  const auto route =
      read(point(48, 11, "<ele>500</ele><speed>20</speed>") +
           point(48.004, 11, "<ele>510</ele><speed>20</speed><type>Tunnel</type>") +
           point(48.004, 11.010, "<ele>490</ele><speed>12</speed>") + point(48.00401, 11.01001) +
           point(48.008, 11.010, "<time>2024-01-05T15:40:00Z</time>") +
           point(48.008, 11.010, "<time>2024-01-05T15:41:00Z</time>") + point(48.004, 11.0101));
  const Course course(route, 10);
  double right = 0;
  double left = 0;
  expect_consistency(course, right, left);
  EXPECT_GT(right, 5);
  EXPECT_LT(left, -5);
  double fastest = 0;
  auto standing = 0s;
  std::set<Fix_type> fixes;
  std::vector<double> nearest(route.points.size(), 1e9);
  for (auto time = 0s; time <= course.lap_time() + 1s; ++time) {
    for (auto part = 0ms; part < 1000ms; part += 100ms) {
      const auto sample = course.sample(time + part);
      for (std::size_t index = 0; index < nearest.size(); ++index) {
        const auto& at = route.points[index];
        nearest[index] = std::min(
            nearest[index], Place{at.latitude, at.longitude}
                                .to({sample.latitude, sample.longitude}, Radii::at(at.latitude))
                                .length());
      }
      fastest = std::max(fastest, sample.speed);
      fixes.insert(sample.fix);
    }
    if (course.sample(time).speed == 0) ++standing;
  }
  for (std::size_t index = 0; index < nearest.size(); ++index)
    EXPECT_LT(nearest[index], 6) << index;
  EXPECT_NEAR(fastest, 20, 1e-6);
  EXPECT_GE(standing, 58s);
  EXPECT_EQ(fixes.size(), 3U) << "the tunnel";
  EXPECT_NEAR(course.sample(course.lap_time() + 1h).latitude, 48.004, 1e-6) << "the end";
}

TEST_F(Route_file, a_file_without_a_way_is_refused_with_its_name) {
  EXPECT_THAT(test::error_of([&] { (void)read(point(91, 11)); }), testing::HasSubstr(path));
  EXPECT_THAT(test::error_of([&] { (void)read("<"); }), testing::HasSubstr(path));
  EXPECT_THAT(test::error_of([] { (void)read_gpx("/no/such/file"); }),
              testing::HasSubstr("No such file"));
  EXPECT_THAT(test::error_of([&] { (void)Course(read(point(48, 11) + point(48, 11)), 10); }),
              testing::HasSubstr("two points"));
}

}  // namespace
}  // namespace drive
