#include "clients/received_data_log.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <sstream>

namespace gnssClient {
namespace {

using binding::Value_type;
using Position = lumo::services::gnss::datatypes::DT_positions_struct;
using Quality = lumo::services::gnss::datatypes::DT_positionsQuality_struct;

template <class... Record>
std::string line_of(const Record&... record) {
  std::string text;
  append_line(text, record...);
  return text;
}

TEST(Position_line, names_every_logged_member_in_its_order) {
  Position p;
  p.positionType = 2;
  p.messageCounter = 4294967295;
  p.LAT = 48.137154;
  p.LAT_valueType = Value_type::physical_value;
  p.LON = -1e-5;
  p.LON_valueType = Value_type::logical_value;
  p.altitudeMeanSeaLevel = 519.5F;
  p.altitudeMeanSeaLevel_valueType = Value_type::error;
  p.altitudeWGS84 = 566.1F;
  p.altitudeWGS84_valueType = Value_type::init;
  p.yawAngle = 359.9F;
  p.yawAngle_valueType = static_cast<Value_type>(5);
  p.yawRate = 1.0F;
  p.speed2D = 0.0F;
  p.preciseLocalTimeSeconds = 1'700'000'000;
  p.preciseLocalTimeSeconds_valueType = Value_type::physical_value;
  p.preciseLocalTimeNanoseconds = 500'000'999;
  p.preciseLocalTimeNanoseconds_valueType = static_cast<Value_type>(0);
  EXPECT_EQ(
      line_of(p, std::uint64_t{1'700'000'000'600'000}),
      "###### position from gnss: position type=2, messageCounter=4294967295, LAT=48.137154"
      " (valueType is PhysicalValue), LON=-1e-05 (valueType is LogicalValue),"
      " altitudeWGS84=566.0999755859375 (valueType is Init), altitudeMeanSeaLevel=519.5"
      " (valueType is Error) yawAngle=359.8999938964844 (valueType is unknown), speed2D=0"
      " (valueType is not set), preciseLocalTimeSeconds=1700000000 (valueType is PhysicalValue),"
      " preciseLocalTimeNanoseconds=500000999 (valueType is unknown), sample is 100000 us old at"
      " arrival compared to PLT, sampleTime = 1700000000500000 arrivalTime = 1700000000600000");
}

TEST(Position_line, tells_what_is_absent) {
  Position p;
  p.LAT = 1.5;
  EXPECT_EQ(
      line_of(p, std::uint64_t{1}),
      "###### position from gnss: position type value is not set, messageCounter value is not set,"
      " LAT=1.5 (valueType is not set), LON value is not set (valueType is not set),"
      " altitudeWGS84 value is not set (valueType is not set), altitudeMeanSeaLevel value is not "
      "set"
      " (valueType is not set), yawAngle value is not set (valueType is not set), speed2D value is"
      " not set (valueType is not set), preciseLocalTimeSeconds value is not set (valueType is not"
      " set), preciseLocalTimeNanoseconds value is not set (valueType is not set)");
}

TEST(Position_line, compares_a_complete_timestamp_with_the_arrival) {
  Position p;
  p.preciseLocalTimeSeconds = 4294967295;
  EXPECT_EQ(line_of(p, std::uint64_t{0}).find(", sample is"), std::string::npos);
  p.preciseLocalTimeNanoseconds = 1999;

  const auto age = [&](std::uint64_t arrival_us) {
    const auto line = line_of(p, arrival_us);
    return line.substr(line.find(", sample is"));
  };
  EXPECT_EQ(age(4294967295000001 - 250),
            ", sample is 250 us into the future compared to PLT, sampleTime = 4294967295000001"
            " arrivalTime = 4294967294999751");
  EXPECT_EQ(age(4294967295000001),
            ", sample is 0 us old at arrival compared to PLT, sampleTime = 4294967295000001"
            " arrivalTime = 4294967295000001");
  EXPECT_EQ(age(0),
            ", sample is 4294967295000001 us into the future compared to PLT, sampleTime ="
            " 4294967295000001 arrivalTime = 0");
}

TEST(Quality_line, names_every_logged_member_in_its_order) {
  Quality q;
  EXPECT_EQ(line_of(q),
            "###### positions quality from gnss: positionType value is not set, gDOP value is not"
            " set (valueType is not set), hDOP value is not set (valueType is not set), pDOP value"
            " is not set (valueType is not set), vDOP value is not set (valueType is not set),"
            " isActivatedAssistedGNSS value is not set, statusReceiverMode value is not set,"
            " statusFixType value is not set, updateRateGNSS value is not set (valueType is not"
            " set), satsInView value is not set (valueType is not set), satsInUse value is not set"
            " (valueType is not set), satsTracked value is not set (valueType is not set),"
            " statusGNSSAntenna value is not set");
  q.positionType = 1;
  q.gDOP = 2.5F;
  q.gDOP_valueType = Value_type::physical_value;
  q.hDOP = 0.9F;
  q.hDOP_valueType = Value_type::init;
  q.pDOP = 1e20F;
  q.pDOP_valueType = Value_type::error;
  q.vDOP = 3.0F;
  q.isActivatedAssistedGNSS = false;
  q.statusReceiverMode = 2;
  q.statusFixType = 3;
  q.updateRateGNSS = 10;
  q.updateRateGNSS_valueType = Value_type::physical_value;
  q.satsInView = 17;
  q.systemsInView = 7;
  q.satsInUse = 12;
  q.satsInUse_valueType = Value_type::physical_value;
  q.satsTracked = 14;
  q.satsInViewGPS = 9;
  q.statusGNSSAntenna = 1;
  EXPECT_EQ(
      line_of(q),
      "###### positions quality from gnss: positionType=1, gDOP=2.5 (valueType is"
      " PhysicalValue), hDOP=0.8999999761581421 (valueType is Init), pDOP=1.000000020040877e+20"
      " (valueType is Error), vDOP=3 (valueType is not set), isActivatedAssistedGNSS=0,"
      " statusReceiverMode=2, statusFixType=3, updateRateGNSS=10 (valueType is PhysicalValue),"
      " satsInView=17 (valueType is not set), satsInUse=12 (valueType is PhysicalValue),"
      " satsTracked=14 (valueType is not set), statusGNSSAntenna=1");
  q.isActivatedAssistedGNSS = true;
  EXPECT_NE(line_of(q).find(", isActivatedAssistedGNSS=1,"), std::string::npos);
}

TEST(Append_number, writes_what_a_stream_of_precision_16_writes) {
  std::vector<double> values{0.0,
                             1.0,
                             0.1,
                             1e-4,
                             1e-5,
                             123456789012345678.0,
                             1e15,
                             1e16,
                             1e17,
                             9999999999999998.0,
                             9.9999999999999999e-5,
                             48.137154,
                             1.0 / 3,
                             std::numeric_limits<double>::max(),
                             std::numeric_limits<double>::min(),
                             std::numeric_limits<double>::denorm_min(),
                             std::numeric_limits<double>::infinity(),
                             std::numeric_limits<double>::quiet_NaN(),
                             std::numeric_limits<double>::signaling_NaN(),
                             static_cast<double>(std::numeric_limits<float>::denorm_min())};
  std::mt19937_64 random{42};
  for (int i = 0; i < 20'000; ++i)
    values.push_back(std::bit_cast<double>(random()));
  for (int i = 0; i < 20'000; ++i)
    values.push_back(std::ldexp(static_cast<double>(random() >> 12U), -45));
  for (int i = 0; i < 20'000; ++i) {
    values.push_back(
        static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(random()))));
  }
  std::ostringstream stream;
  stream.precision(16);
  for (const double magnitude : values) {
    for (const double value : {magnitude, -magnitude}) {
      stream.str({});
      stream << value;
      std::string text;
      append_number(text, value);
      ASSERT_EQ(text, stream.str());
    }
  }
}

}  // namespace
}  // namespace gnssClient
