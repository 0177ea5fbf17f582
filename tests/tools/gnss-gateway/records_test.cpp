#include <gmock/gmock.h>

#include "tests/clients/printing.h"
#include "tools/gnss-gateway/notification.h"

namespace gateway {
namespace {

using namespace std::chrono_literals;
using namespace lumo::services::gnss::datatypes;
using binding::Value_type;
using lumo::services::Position_type;

constexpr Context context{
    .message_counter = 7, .precise_local_time = 12s + 345'678'901ns, .update_rate_hz = 10U};

nmea::Fix told_fix() {
  nmea::Fix fix;
  fix.valid = true;
  fix.position = nmea::Coordinates{-44.5, 121.25};
  fix.altitude_msl = 1144.8;
  fix.geoid_separation = -21.4;
  fix.speed = 3.5;
  fix.course = 271.3;
  fix.quality = nmea::Fix_quality::autonomous;
  fix.hdop = 0.9;
  fix.satellites_in_use = 8;
  return fix;
}

TEST(Records, a_fix_of_a_receiver_travels_as_both_types_with_what_it_told) {
  const auto notification = to_notification(told_fix(), context);
  ASSERT_EQ(notification.positions.size(), 2U);
  EXPECT_EQ(notification.positions[0].positionType, Position_type::gnss);
  EXPECT_EQ(notification.positions[1].positionType, Position_type::gnss_dr);
  for (const auto& record : notification.positions) {
    EXPECT_EQ(record.messageCounter, 7U);
    EXPECT_EQ(record.preciseLocalTimeSeconds, 12U);
    EXPECT_EQ(record.preciseLocalTimeNanoseconds, 345'678'901U);
    EXPECT_EQ(record.preciseLocalTimeNanoseconds_valueType, Value_type::physical_value);
    EXPECT_EQ(record.LAT, -44.5);
    EXPECT_EQ(record.LON, 121.25);
    EXPECT_EQ(record.LON_valueType, Value_type::physical_value);
    EXPECT_EQ(record.altitudeMeanSeaLevel, 1144.8F);
    EXPECT_EQ(record.altitudeWGS84, 1123.4F);
    EXPECT_EQ(record.speed2D, 3.5F);
    EXPECT_EQ(record.yawAngle, 271.3F);
    EXPECT_EQ(record.courseOverGround, 271.3F);
    EXPECT_FALSE(record.yawRate || record.yawRate_valueType) << "no such sensor";
  }
  const auto& quality = notification.quality.at(0);
  EXPECT_EQ(quality.hDOP, 0.9F);
  EXPECT_EQ(quality.satsInUse, 8U);
  EXPECT_EQ(quality.updateRateGNSS, 10U);
  EXPECT_EQ(quality.statusReceiverMode, Receiver_mode::navigating);
  EXPECT_EQ(quality.statusFixType, Fix_type::three_dimensional);
  EXPECT_FALSE(quality.satsInView || quality.satsInView_valueType || quality.satsInViewGPS);
  EXPECT_FALSE(notification.satellites);
}

TEST(Records, what_the_receiver_marks_as_unusable_carries_error) {
  auto fix = told_fix();
  fix.valid = false;
  fix.speed.reset();
  const auto notification = to_notification(fix, context);
  for (const auto& record : notification.positions) {
    EXPECT_EQ(record.LAT, -44.5) << "the last value that it knows";
    EXPECT_EQ(record.LAT_valueType, Value_type::error);
    EXPECT_FALSE(record.speed2D);
    EXPECT_EQ(record.speed2D_valueType, Value_type::error);
    EXPECT_EQ(record.preciseLocalTimeSeconds_valueType, Value_type::physical_value);
  }
  EXPECT_EQ(notification.quality.at(0).statusFixType, Fix_type::none);
  EXPECT_EQ(notification.quality.at(0).statusReceiverMode, Receiver_mode::acquiring);
}

TEST(Records, a_course_is_a_heading_only_in_motion_and_a_measured_heading_always) {
  struct Case {
    std::optional<double> speed;
    std::optional<double> heading;
    bool valid;
    boost::optional<float> yaw_angle;
    boost::optional<Value_type> quality;
  };
  const auto course = 271.3F;
  for (const auto& [speed, heading, valid, yaw_angle, quality] : std::initializer_list<Case>{
           {3.0, {}, true, course, Value_type::physical_value},
           {2.9, {}, true, {}, Value_type::error},
           {{}, {}, true, {}, Value_type::error},
           {0.0, 45.0, true, 45.0F, Value_type::physical_value},
           {9.0, 45.0, false, 45.0F, Value_type::physical_value},
           {9.0, {}, false, {}, Value_type::error},
       }) {
    auto fix = told_fix();
    fix.speed = speed;
    fix.heading = heading;
    fix.valid = valid;
    const auto record = to_notification(fix, context).positions.at(0);
    EXPECT_EQ(record.yawAngle, yaw_angle);
    EXPECT_EQ(record.yawAngle_valueType, quality);
    EXPECT_EQ(record.courseOverGround, course);
  }
  auto fix = told_fix();
  fix.course = fix.speed = std::nullopt;
  EXPECT_FALSE(to_notification(fix, context).positions.at(0).yawAngle_valueType) << "never has one";
}

TEST(Records, accuracies_corrections_and_attitude_have_their_members) {
  auto fix = told_fix();
  fix.accuracy_horizontal = 0.5;
  fix.accuracy_vertical = 0.75;
  fix.age_of_corrections = 1.5;
  fix.heading = 10;
  fix.heading_accuracy = 0.25;
  fix.pitch = -2;
  fix.roll = 4;
  const auto record = to_notification(fix, context).positions.at(1);
  EXPECT_EQ(record.accuracyHorizontal, 0.5F);
  EXPECT_EQ(record.accuracyVertical, 0.75F);
  EXPECT_EQ(record.ageOfDifferentialData, 1500U);
  EXPECT_EQ(record.ageOfDifferentialData_valueType, Value_type::physical_value);
  EXPECT_EQ(record.accuracyYawAngle, 0.25F);
  EXPECT_EQ(record.pitchAngle, -2.0F);
  EXPECT_EQ(record.rollAngle, 4.0F);
  fix.supplement = true;
  EXPECT_TRUE(to_notification(fix, context).positions.empty());
}

TEST(Records, satellites_are_listed_and_counted_by_system) {
  auto fix = told_fix();
  fix.satellites = {{nmea::Gnss_system::gps, 4, 40, 83, 46, true},
                    {nmea::Gnss_system::gps, 5, {}, {}, {}, false},
                    {nmea::Gnss_system::qzss, 193, 10, 20, 30, false},
                    {nmea::Gnss_system::sbas, 46, 31, 150, 0, false}};
  const auto notification = to_notification(fix, context);
  const auto& list = notification.satellites.value();
  ASSERT_EQ(list.size(), 4U);
  EXPECT_EQ(list[0].satelliteId, 4U);
  EXPECT_EQ(list[0].elevation, 40.0F);
  EXPECT_EQ(list[0].carrierToNoise_valueType, Value_type::physical_value);
  EXPECT_EQ(list[0].usage, Satellite_usage::in_solution);
  EXPECT_FALSE(list[1].elevation || list[1].elevation_valueType);
  EXPECT_EQ(list[1].usage, Satellite_usage::in_view);
  EXPECT_EQ(list[2].gnssSystem, Gnss_system::other);
  EXPECT_EQ(list[2].usage, Satellite_usage::tracked);
  EXPECT_EQ(list[3].usage, Satellite_usage::in_view) << "a signal of 0 is not tracked";
  const auto& quality = notification.quality.at(0);
  EXPECT_EQ(quality.satsInViewGPS, std::uint8_t{2});
  EXPECT_EQ(quality.satsInUseGPS, std::uint8_t{1});
  EXPECT_EQ(quality.satsInViewSBAS, std::uint8_t{1});
  EXPECT_EQ(quality.satsInViewGalileo, std::uint8_t{0});
  EXPECT_EQ(quality.systemsInView, 0b110001U);
  EXPECT_EQ(quality.systemsTracked, 0b100001U);
  EXPECT_EQ(quality.systemsInUse, 0b000001U);
}

TEST(Records, the_drive_begins_without_an_error) {
  const drive::Course course;
  for (const auto& record :
       to_notification(course.sample(0s), course.sample(0s), course.sky(0s, 24), context)
           .positions) {
    binding::for_each_quantity<lumo::services::gnss::datatypes::DT_positions_struct>(
        [&](const auto& quantity) {
          EXPECT_NE(record.*quantity.quality.pointer, Value_type::error);
        });
  }
}

TEST(Records, in_the_tunnel_of_the_drive_only_dead_reckoning_has_a_position) {
  const drive::Course course;
  auto blind_time = 0s;
  for (auto time = 0s; time < course.lap_time(); ++time) {
    const auto sample = course.sample(time);
    const auto notification = to_notification(sample, sample, course.sky(time, 60), context);
    const bool blind = sample.fix == drive::Fix_type::none;
    if (blind) ++blind_time;
    const auto& gnss = notification.positions.at(0);
    ASSERT_EQ(gnss.LAT.has_value(), !blind);
    ASSERT_EQ(gnss.LAT_valueType, blind ? Value_type::error : Value_type::physical_value);
    ASSERT_EQ(gnss.altitudeWGS84.has_value(), sample.fix == drive::Fix_type::three_dimensional);
    const auto& reckoned = notification.positions.at(1);
    ASSERT_EQ(reckoned.LAT, sample.latitude);
    ASSERT_EQ(reckoned.LAT_valueType, Value_type::physical_value);
    ASSERT_EQ(reckoned.yawAngle, static_cast<float>(sample.heading));
    ASSERT_EQ(notification.quality.at(0).statusFixType == Fix_type::none, blind);
    ASSERT_EQ(notification.quality.at(1).statusFixType == Fix_type::dead_reckoning, blind);
  }
  EXPECT_GE(blind_time, 20s);
}

}  // namespace
}  // namespace gateway
