#include "tools/gnss-gateway/Records.h"

#include <gmock/gmock.h>

#include "tests/clients/printing.h"

namespace gateway {
namespace {

using namespace std::chrono_literals;
using binding::Value_type;

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
  EXPECT_EQ(notification.positions[0].positionType, 1U);
  EXPECT_EQ(notification.positions[1].positionType, 2U);
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
  EXPECT_EQ(quality.statusReceiverMode, 2U);
  EXPECT_EQ(quality.statusFixType, 3U);
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
  EXPECT_EQ(notification.quality.at(0).statusFixType, 0U);
  EXPECT_EQ(notification.quality.at(0).statusReceiverMode, 1U);
}

TEST(Records, the_fix_type_follows_quality_and_dimension) {
  const auto status = [](auto member, auto value) {
    auto fix = told_fix();
    fix.*member = value;
    return to_notification(fix, context).quality.at(1).statusFixType;
  };
  EXPECT_EQ(status(&nmea::Fix::dimension, nmea::Fix_dimension::two), 2U);
  EXPECT_EQ(status(&nmea::Fix::altitude_msl, std::nullopt), 2U);
  using enum nmea::Fix_quality;
  EXPECT_EQ(status(&nmea::Fix::quality, differential), 4U);
  EXPECT_EQ(status(&nmea::Fix::quality, rtk_float), 5U);
  EXPECT_EQ(status(&nmea::Fix::quality, rtk_fixed), 6U);
  EXPECT_EQ(status(&nmea::Fix::quality, estimated), 1U);
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
  EXPECT_EQ(list[0].usage, 2U);
  EXPECT_FALSE(list[1].elevation || list[1].elevation_valueType);
  EXPECT_EQ(list[1].usage, 0U);
  EXPECT_EQ(list[2].gnssSystem, 5U);
  EXPECT_EQ(list[2].usage, 1U);
  EXPECT_EQ(list[3].usage, 0U) << "a signal of 0 is not tracked";
  const auto& quality = notification.quality.at(0);
  EXPECT_EQ(quality.satsInViewGPS, std::uint8_t{2});
  EXPECT_EQ(quality.satsInUseGPS, std::uint8_t{1});
  EXPECT_EQ(quality.satsInViewSBAS, std::uint8_t{1});
  EXPECT_EQ(quality.satsInViewGalileo, std::uint8_t{0});
  EXPECT_EQ(quality.systemsInView, 0b110001U);
  EXPECT_EQ(quality.systemsTracked, 0b100001U);
  EXPECT_EQ(quality.systemsInUse, 0b000001U);
}

TEST(Records, in_the_tunnel_of_the_drive_only_dead_reckoning_has_a_position) {
  const drive::Course course;
  auto blind_time = 0s;
  for (auto time = 0s; time < course.lap_time(); ++time) {
    const auto sample = course.sample(time);
    const auto notification = to_notification(sample, course.sky(time, 60), context);
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
    ASSERT_EQ(notification.quality.at(0).statusFixType == 0U, blind);
    ASSERT_EQ(notification.quality.at(1).statusFixType == 1U, blind);
  }
  EXPECT_GE(blind_time, 20s);
}

}  // namespace
}  // namespace gateway
