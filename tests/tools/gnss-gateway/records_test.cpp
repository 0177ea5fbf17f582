#include <gmock/gmock.h>

#include "tests/clients/printing.h"
#include "tests/tools/gnss-gateway/said.h"
#include "tools/gnss-gateway/notification.h"

namespace gateway {
namespace {

using namespace std::chrono_literals;
using namespace lumo::services::gnss::datatypes;
using binding::Value_type;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

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
  fix.heading = 10;
  fix.heading_accuracy = 0.25;
  fix.pitch = -2;
  fix.roll = 4;
  fix.accuracy_horizontal = 0.5;
  fix.accuracy_vertical = 0.75;
  fix.age_of_corrections = 1.5;
  fix.quality = nmea::Fix_quality::autonomous;
  fix.hdop = 0.9;
  fix.satellites_in_use = 8;
  return fix;
}

TEST(Records, a_fix_of_a_receiver_travels_as_both_types_with_what_it_told) {
  auto fix = told_fix();
  auto notification = to_notification(fix, context);
  const std::string told =
      " messageCounter=7 LAT=-44.5+ LON=121.25+ altitudeMeanSeaLevel=1144.8+ altitudeWGS84=1123.4+ "
      "yawAngle=10.0+ speed2D=3.5+ courseOverGround=271.3+ pitchAngle=-2.0+ rollAngle=4.0+ "
      "accuracyHorizontal=0.5+ accuracyVertical=0.75+ accuracyYawAngle=0.25+ "
      "ageOfDifferentialData=1500+ preciseLocalTimeSeconds=12+ "
      "preciseLocalTimeNanoseconds=345678901+";
  EXPECT_THAT(said(notification.positions),
              ElementsAre("positionType=GNSS" + told, "positionType=GNSS-DR" + told));
  EXPECT_THAT(said(notification.quality),
              Each(EndsWith(" hDOP=0.9+ statusReceiverMode=navigating statusFixType=3D "
                            "updateRateGNSS=10+ satsInUse=8+")));
  EXPECT_FALSE(notification.satellites);
  fix.valid = false;
  fix.speed.reset();
  notification = to_notification(fix, context);
  // With the last values that the receiver knows. Its attitude does not depend on satellites.
  EXPECT_THAT(said(notification.positions),
              Each(EndsWith(
                  " messageCounter=7 LAT=-44.5! LON=121.25! altitudeMeanSeaLevel=1144.8! "
                  "altitudeWGS84=1123.4! "
                  "yawAngle=10.0+ speed2D! courseOverGround=271.3! pitchAngle=-2.0+ rollAngle=4.0+ "
                  "accuracyHorizontal=0.5! accuracyVertical=0.75! accuracyYawAngle=0.25+ "
                  "ageOfDifferentialData=1500! preciseLocalTimeSeconds=12+ "
                  "preciseLocalTimeNanoseconds=345678901+")));
  EXPECT_THAT(said(notification.quality),
              Each(HasSubstr(" statusReceiverMode=acquiring statusFixType=none ")));
  fix.supplement = true;
  EXPECT_TRUE(to_notification(fix, context).positions.empty());
}

TEST(Records, a_course_is_a_heading_only_in_motion_and_a_measured_heading_always) {
  struct Case {
    std::optional<double> speed;
    std::optional<double> heading;
    bool valid;
    const char* said;
  };
  for (const auto& [speed, heading, valid, expected] : std::initializer_list<Case>{
           {3.0, {}, true, " yawAngle=271.3+ "},
           {2.9, {}, true, " yawAngle! "},
           {{}, {}, true, " yawAngle! "},
           {0.0, 45.0, true, " yawAngle=45.0+ "},
           {9.0, 45.0, false, " yawAngle=45.0+ "},
           {9.0, {}, false, " yawAngle! "},
       }) {
    auto fix = told_fix();
    fix.speed = speed;
    fix.heading = heading;
    fix.valid = valid;
    EXPECT_THAT(said(to_notification(fix, context).positions),
                Each(AllOf(HasSubstr(expected), HasSubstr(" courseOverGround=271.3"))));
  }
  auto fix = told_fix();
  fix.course = fix.speed = fix.heading = std::nullopt;
  EXPECT_THAT(said(to_notification(fix, context).positions), Each(Not(HasSubstr("yawAngle"))))
      << "never has one";
}

TEST(Records, satellites_are_listed_and_counted_by_system) {
  auto fix = told_fix();
  fix.satellites = {{nmea::Gnss_system::gps, 4, 40, 83, 46, true},
                    {nmea::Gnss_system::gps, 5, {}, {}, {}, false},
                    {nmea::Gnss_system::qzss, 193, 10, 20, 30, false},
                    {nmea::Gnss_system::sbas, 46, 31, 150, 0, false}};
  const auto notification = to_notification(fix, context);
  EXPECT_THAT(said(notification.satellites.value()),
              ElementsAre("satelliteId=4 gnssSystem=GPS elevation=40.0+ azimuth=83.0+ "
                          "carrierToNoise=46.0+ usage=in the solution",
                          "satelliteId=5 gnssSystem=GPS usage=in view",
                          "satelliteId=193 gnssSystem=other elevation=10.0+ azimuth=20.0+ "
                          "carrierToNoise=30.0+ usage=tracked",
                          "satelliteId=46 gnssSystem=SBAS elevation=31.0+ azimuth=150.0+ "
                          "carrierToNoise=0.0+ usage=in view"));
  EXPECT_THAT(said(notification.quality),
              Each(EndsWith(" systemsInView=49 satsInUse=8+ systemsInUse=1 systemsTracked=33 "
                            "satsInViewGPS=2 satsInViewGLONASS=0 satsInViewGalileo=0 "
                            "satsInViewBeiDou=0 satsInViewSBAS=1 "
                            "satsInUseGPS=1 satsInUseGLONASS=0 satsInUseGalileo=0 "
                            "satsInUseBeiDou=0 satsInUseSBAS=0")));
}

TEST(Records, the_drive_begins_without_an_error) {
  const drive::Course course;
  const auto notification =
      to_notification(course.sample(0s), course.sample(0s), course.sky(0s, 24), context);
  EXPECT_THAT(said(notification.positions), Each(Not(HasSubstr("!"))));
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
