/// The reports of gpsd and the records that they become. That a real gpsd sends them is for
/// gpsd_test.py to see.
#include "tools/gnss-gateway/gpsd_reader.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

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
using testing::Optional;

const std::string position =
    R"("time":"2024-01-05T15:40:07.125Z","lat":48.123456789,"lon":-11.765432101,"altHAE":545.1234,)"
    R"("altMSL":497.6543,"epv":2.345,"track":11.3,"speed":10.198,"climb":-0.25,"eps":0.32,"epc":4.69,)"
    R"("epd":1.5,"eph":1.234)";

class Reader : public testing::Test {
 protected:
  /// One burst of gpsd.
  void says(const std::string& lines) {
    reader.feed(lines, sink);
    reader.pause(sink);
  }
  static std::string tpv(const std::string& members, const std::string& device = "/dev/a") {
    return R"({"class":"TPV","device":")" + device + R"(",)" + members + "}\r\n";
  }

  std::vector<nmea::Fix> fixes;
  const Gpsd_reader::Sink sink = [this](const nmea::Fix& fix) { fixes.push_back(fix); };
  Gpsd_reader reader{""};
};

TEST_F(Reader, what_gpsd_knows_goes_where_the_records_have_a_member) {
  says(
      R"({"class":"GST","device":"/dev/a","time":"2024-01-05T15:40:07.125Z","lat":3,"lon":4,"alt":5})"
      "\n" +
      tpv(R"("mode":3,"status":2,"ant":2,"dgpsAge":2.5,"dgpsSta":120,)" + position) +
      R"({"class":"SKY","device":"/dev/a","gdop":2.1,"hdop":0.95,"pdop":1.8,"vdop":1.5,"satellites":[)"
      R"({"PRN":5,"el":60.5,"az":120.25,"ss":44.5,"used":true,"gnssid":0,"svid":5},)"
      R"({"PRN":5,"el":60.5,"az":120.25,"ss":40,"used":false,"gnssid":0,"svid":5,"sigid":3},)"
      R"({"PRN":73,"el":30,"az":250,"ss":0,"used":false,"gnssid":6,"svid":9},)"
      R"({"PRN":194,"used":false,"gnssid":5,"svid":2},{"PRN":302,"used":false}]})"
      "\n"
      R"({"class":"IMU","device":"/dev/b","heading":12.5,"pitch":-2,"roll":3,"gyro_z":0.5})"
      "\n");
  ASSERT_EQ(fixes.size(), 1U);
  EXPECT_THAT(fixes[0].utc,
              Optional(std::chrono::sys_days(2024y / 1 / 5) + 15h + 40min + 7s + 125ms));
  const auto notification = to_notification(fixes[0], {});
  // The accuracy of the course is not that of the heading; GST only where TPV tells none.
  EXPECT_EQ(
      said(notification.positions).at(0),
      "positionType=GNSS messageCounter=0 LAT=48.123456789+ LON=-11.765432101+ "
      "altitudeMeanSeaLevel=497.6543+ altitudeWGS84=545.1234+ "
      "yawAngle=12.5+ yawRate=0.5+ speed2D=10.198+ speedVertical=-0.25+ courseOverGround=11.3+ "
      "pitchAngle=-2.0+ rollAngle=3.0+ "
      "accuracyHorizontal=1.234+ accuracyVertical=2.345+ accuracySpeed2D=0.32+ "
      "accuracySpeedVertical=4.69+ "
      "ageOfDifferentialData=2500+ preciseLocalTimeSeconds=0+ preciseLocalTimeNanoseconds=0+");
  EXPECT_THAT(
      said(notification.quality).at(0),
      AllOf(HasSubstr("gDOP=2.1+ hDOP=0.95+ pDOP=1.8+ vDOP=1.5+ statusReceiverMode=navigating "
                      "statusFixType=differential satsInView=4+ systemsInView=39 satsInUse=1+ "),
            EndsWith(" statusGNSSAntenna=open")));
  // Two signals are one satellite.
  EXPECT_THAT(said(notification.satellites.value()),
              ElementsAre("satelliteId=5 gnssSystem=GPS elevation=60.5+ azimuth=120.25+ "
                          "carrierToNoise=44.5+ usage=in the solution",
                          "satelliteId=9 gnssSystem=GLONASS elevation=30.0+ azimuth=250.0+ "
                          "carrierToNoise=0.0+ usage=in view",
                          "satelliteId=194 gnssSystem=other usage=in view",
                          "satelliteId=2 gnssSystem=Galileo usage=in view"));
  says(tpv(R"("mode":1)"));
  EXPECT_FALSE(fixes.back().heading) << "told once";
}

TEST_F(Reader, the_fix_type_goes_from_none_to_rtk_and_dead_reckoning_has_a_sample_of_its_own) {
  using enum Fix_type;
  for (const auto& [mode, gnss, reckoned] :
       std::initializer_list<std::tuple<const char*, Fix_type, Fix_type>>{
           {R"("mode":1,)", none, none},
           {R"("mode":2,)", two_dimensional, two_dimensional},
           {R"("mode":3,"status":4,)", rtk_float, rtk_float},
           {R"("mode":3,"status":3,)", rtk_fixed, rtk_fixed},
           {R"("mode":3,"status":6,)", three_dimensional, three_dimensional},
           {R"("mode":3,"status":5,)", none, dead_reckoning},
       }) {
    says(tpv(mode + position));
    const auto notification = to_notification(fixes.back(), {});
    for (const auto& [type, index] : {std::pair{gnss, 0U}, {reckoned, 1U}}) {
      EXPECT_EQ(notification.quality.at(index).statusFixType, type) << mode;
      EXPECT_EQ(notification.positions.at(index).LAT_valueType,
                type == none ? Value_type::error : Value_type::physical_value)
          << mode;
    }
  }
}

TEST_F(Reader, repetitions_and_other_devices_make_no_positions) {
  says(tpv(R"("mode":3,)" + position) + tpv(R"("mode":3,)" + position) +
       tpv(R"("mode":0,"time":"2024-01-05T15:40:08.125Z")") + tpv(R"("mode":3)", "/dev/b"));
  EXPECT_EQ(fixes.size(), 1U);
  says(R"({"class":"SKY","device":"/dev/a","hdop":0.5})"
       "\n");
  ASSERT_EQ(fixes.size(), 2U);
  EXPECT_TRUE(fixes[1].supplement && fixes[1].hdop == 0.5);
  says(tpv(R"("mode":1)") + tpv(R"("mode":1)"));
  EXPECT_EQ(fixes.size(), 3U);
  EXPECT_EQ(reader.counters().repeated, 3U);
  EXPECT_EQ(reader.counters().other_reports, 1U);
  reader.forget();
  says(tpv(R"("mode":1)", "/dev/b"));
  EXPECT_EQ(reader.device(), "/dev/b");
}

TEST_F(Reader, a_device_that_gpsd_gives_up_is_missing) {
  const auto missing = [&](const std::string& line) {
    says(line + "\n");
    return reader.device_is_missing();
  };
  EXPECT_TRUE(missing(R"({"class":"DEVICES","devices":[]})"));
  says(tpv(R"("mode":3,)" + position));
  EXPECT_FALSE(missing(R"({"class":"DEVICES","devices":[{"path":"/dev/a"}]})"));
  EXPECT_FALSE(missing(R"({"class":"DEVICE","path":"/dev/b","activated":0})"));
  EXPECT_TRUE(missing(R"({"class":"DEVICE","path":"/dev/a","activated":0})"));
  EXPECT_FALSE(missing(R"({"class":"DEVICE","path":"/dev/a","activated":"2024-01-05T15:40:07Z"})"));
}

TEST_F(Reader, what_is_no_report_costs_itself_only) {
  says("SSH-2.0\n" + std::string(2 * Gpsd_reader::max_line, '[') + "\n{}\n\n[]\n" +
       tpv(R"("mode":3,"lat":"x")") + tpv(R"("mode":"3")") +
       "{\"class\":\"SKY\",\"satellites\":[{\"PRN\":5,\"later\":{\"a\":1}}]}\n" +
       tpv(R"("mode":3,"lat":91,"lon":0,"eph":-1,"speed":1e400)") + "{\"class\":\"\\u0049MU\"}\n" +
       // gps_unpack() of libgps 3.22 does not return from this one.
       tpv(R"("mode":3,"devices":[{"class":"DEVICE"}],"later":{"a":1},)" + position));
  EXPECT_EQ(reader.counters().malformed, 7U);
  for (const auto& fix : fixes)
    EXPECT_FALSE(fix.speed && !fix.valid);
  EXPECT_TRUE(fixes.back().valid);
}

TEST_F(Reader, without_a_position_every_known_quantity_carries_error) {
  Known_quantities known;
  const auto notify = [&](const nmea::Fix& fix) {
    auto notification = to_notification(fix, {.update_rate_hz = 5});
    known.complete(notification, fix);
    return notification;
  };
  says(tpv(R"("mode":3,)" + position) + tpv(R"("mode":1)"));
  notify(fixes.at(0));
  EXPECT_THAT(said(notify(fixes.at(1)).positions),
              Each(AllOf(HasSubstr(" accuracyHorizontal! "), Not(HasSubstr("rollAngle")))));
  nmea::Fix away;
  away.present = false;
  const auto notification = notify(away);
  EXPECT_THAT(said(notification.positions),
              Each(AllOf(HasSubstr(" LAT! "), HasSubstr(" preciseLocalTimeSeconds=0+ "))));
  EXPECT_THAT(said(notification.quality),
              Each(AllOf(HasSubstr(" updateRateGNSS!"), HasSubstr(" statusReceiverMode=off "))));
}

}  // namespace
}  // namespace gateway
