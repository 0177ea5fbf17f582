/// Records of the Positioning service, each described once.
#pragma once

#include <boost/optional.hpp>
#include <cstdint>
#include <string>

#include "binding/position_type.h"

namespace lumo::services::positioning::datatypes {

/// Where a map-matched record comes from.
enum class Position_source : std::uint32_t { position_update = 1, forwarded_position = 4 };
constexpr auto enumerators_of(Position_source) {
  using enum Position_source;
  return std::to_array<binding::Enumerator<Position_source>>(
      {{position_update, "position update"}, {forwarded_position, "forwarded position"}});
}

/// Values of the status members of a position: constant in this version, they say nothing about a
/// sample.
namespace position_status {
inline constexpr std::uint32_t position = 2;
inline constexpr std::uint32_t altitude = 1;
inline constexpr std::uint32_t yaw_angle = 2;
inline constexpr std::uint32_t speed = 2;
inline constexpr std::uint32_t attitude = 2;
inline constexpr std::uint32_t time = 1;
inline constexpr std::uint32_t map_matching = 0;
}  // namespace position_status

/// The same of a map-matched record.
namespace map_status {
inline constexpr std::uint32_t map_matching = 2;
inline constexpr std::uint32_t map = 3;
}  // namespace map_status

/// One dead-reckoned position.
struct DT_positions_struct {
  boost::optional<Position_type> positionType;
  boost::optional<std::uint32_t> messageCounter;
  boost::optional<double> LAT;
  boost::optional<double> LON;
  boost::optional<float> altitudeMeanSeaLevel;
  boost::optional<float> altitudeWGS84;
  boost::optional<float> yawAngle;
  boost::optional<float> accuracyHorizontal;
  boost::optional<float> accuracyVertical;
  boost::optional<float> speed2D;
  boost::optional<float> speedVertical;
  boost::optional<float> pitchAngle;
  boost::optional<float> rollAngle;
  boost::optional<float> accuracySpeed2D;
  boost::optional<float> accuracySpeedVertical;
  boost::optional<float> accuracyYawAngle;
  boost::optional<std::uint32_t> statusPosition;
  boost::optional<std::uint32_t> statusAltitude;
  boost::optional<std::uint32_t> statusYawAngle;
  boost::optional<std::uint32_t> statusSpeed;
  boost::optional<std::uint32_t> statusAttitude;
  boost::optional<std::uint32_t> statusTime;
  boost::optional<std::uint32_t> statusMapMatching;
  boost::optional<float> yawRate;
  boost::optional<float> courseOverGround;
  boost::optional<float> pitchRate;
  boost::optional<float> rollRate;
  boost::optional<std::uint32_t> ageOfDifferentialData;
  boost::optional<std::uint32_t> preciseLocalTimeSeconds;
  boost::optional<std::uint32_t> preciseLocalTimeNanoseconds;
  boost::optional<std::uint32_t> age;
};

/// One map-matched record.
struct DT_posMapInfo_struct {
  boost::optional<std::uint32_t> mapInfo;
  boost::optional<std::uint32_t> statusMapMatching;
  boost::optional<std::uint32_t> statusMap;
  boost::optional<Position_source> positionSource;
  boost::optional<std::uint32_t> preciseLocalTimeSeconds;
  boost::optional<std::uint32_t> preciseLocalTimeNanoseconds;
};

}  // namespace lumo::services::positioning::datatypes

template <>
struct binding::Description<lumo::services::positioning::datatypes::DT_positions_struct> {
  using Record = lumo::services::positioning::datatypes::DT_positions_struct;
  static constexpr std::string_view name =
      "lumo::services::positioning::datatypes::DT_positions_struct";
  static constexpr auto entries = std::tuple{
      member(0,
             "positionType",
             &Record::positionType,
             "",
             "GNSS-DR in a position update, absent in a forwarded position"),
      member(1,
             "messageCounter",
             &Record::messageCounter,
             "",
             "the GNSS sender's; 0 to 99 in a position update"),
      member(2, "LAT", &Record::LAT, "deg", "latitude, WGS 84, north positive"),
      member(3, "LON", &Record::LON, "deg", "longitude, WGS 84, east positive"),
      member(4,
             "altitudeMeanSeaLevel",
             &Record::altitudeMeanSeaLevel,
             "m",
             "height above mean sea level"),
      member(5, "altitudeWGS84", &Record::altitudeWGS84, "m", "height above the WGS 84 ellipsoid"),
      member(
          6, "yawAngle", &Record::yawAngle, "deg", "heading, clockwise from true north, 0 to 360"),
      member(7, "accuracyHorizontal", &Record::accuracyHorizontal, "m", "one sigma"),
      member(8, "accuracyVertical", &Record::accuracyVertical, "m", "one sigma"),
      member(9, "speed2D", &Record::speed2D, "m/s", "horizontal speed over ground"),
      member(10, "speedVertical", &Record::speedVertical, "m/s", "vertical speed, up positive"),
      member(11, "pitchAngle", &Record::pitchAngle, "deg", "nose up positive"),
      member(12, "rollAngle", &Record::rollAngle, "deg", "right side down positive"),
      member(13, "accuracySpeed2D", &Record::accuracySpeed2D, "m/s", "one sigma"),
      member(14, "accuracySpeedVertical", &Record::accuracySpeedVertical, "m/s", "one sigma"),
      member(15, "accuracyYawAngle", &Record::accuracyYawAngle, "deg", "one sigma"),
      member(16, "statusPosition", &Record::statusPosition, "", "constant 2, see above"),
      member(17, "statusAltitude", &Record::statusAltitude, "", "constant 1, see above"),
      member(18, "statusYawAngle", &Record::statusYawAngle, "", "constant 2, see above"),
      member(19, "statusSpeed", &Record::statusSpeed, "", "constant 2, see above"),
      member(20, "statusAttitude", &Record::statusAttitude, "", "constant 2, see above"),
      member(21, "statusTime", &Record::statusTime, "", "constant 1, see above"),
      member(22, "statusMapMatching", &Record::statusMapMatching, "", "constant 0, see above"),
      member(23, "yawRate", &Record::yawRate, "deg/s", "clockwise positive"),
      member(24,
             "courseOverGround",
             &Record::courseOverGround,
             "deg",
             "direction of movement, clockwise from true north"),
      member(25, "pitchRate", &Record::pitchRate, "deg/s", "change of the pitch"),
      member(26, "rollRate", &Record::rollRate, "deg/s", "change of the roll"),
      member(27,
             "ageOfDifferentialData",
             &Record::ageOfDifferentialData,
             "ms",
             "age of the differential corrections in use"),
      member(28,
             "preciseLocalTimeSeconds",
             &Record::preciseLocalTimeSeconds,
             "s",
             "time stamp on the precise local time base"),
      member(29,
             "preciseLocalTimeNanoseconds",
             &Record::preciseLocalTimeNanoseconds,
             "ns",
             "fraction of that time stamp, below 1000000000"),
      member(30,
             "age",
             &Record::age,
             "us",
             "absolute difference between time stamp and sending, modulo 2^32")};
};

template <>
struct binding::Description<lumo::services::positioning::datatypes::DT_posMapInfo_struct> {
  using Record = lumo::services::positioning::datatypes::DT_posMapInfo_struct;
  static constexpr std::string_view name =
      "lumo::services::positioning::datatypes::DT_posMapInfo_struct";
  static constexpr auto entries = std::tuple{
      member(0, "mapInfo", &Record::mapInfo, "", "value of a map-info update only"),
      member(1, "statusMapMatching", &Record::statusMapMatching, "", "constant 2, see above"),
      member(2, "statusMap", &Record::statusMap, "", "constant 3, see above"),
      member(3, "positionSource", &Record::positionSource, "", "origin of the record"),
      member(4,
             "preciseLocalTimeSeconds",
             &Record::preciseLocalTimeSeconds,
             "s",
             "time stamp on the precise local time base"),
      member(5,
             "preciseLocalTimeNanoseconds",
             &Record::preciseLocalTimeNanoseconds,
             "ns",
             "fraction of that time stamp")};
};
