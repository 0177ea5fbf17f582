/// Records of the GNSS service, each described once.
#pragma once

#include <boost/optional.hpp>
#include <cstdint>
#include <string>

#include "binding/position_type.h"

namespace lumo::services::gnss::datatypes {

enum class Receiver_mode : std::uint32_t { off = 0, acquiring = 1, navigating = 2 };
constexpr auto enumerators_of(Receiver_mode) {
  using enum Receiver_mode;
  return std::to_array<binding::Enumerator<Receiver_mode>>(
      {{off, "off"}, {acquiring, "acquiring"}, {navigating, "navigating"}});
}

enum class Fix_type : std::uint32_t {
  none = 0,
  dead_reckoning = 1,
  two_dimensional = 2,
  three_dimensional = 3,
  differential = 4,
  rtk_float = 5,
  rtk_fixed = 6,
};
constexpr auto enumerators_of(Fix_type) {
  using enum Fix_type;
  return std::to_array<binding::Enumerator<Fix_type>>({{none, "none"},
                                                       {dead_reckoning, "dead reckoning"},
                                                       {two_dimensional, "2D"},
                                                       {three_dimensional, "3D"},
                                                       {differential, "differential"},
                                                       {rtk_float, "RTK float"},
                                                       {rtk_fixed, "RTK fixed"}});
}

enum class Antenna_status : std::uint32_t { unknown = 0, ok = 1, open = 2, short_circuit = 3 };
constexpr auto enumerators_of(Antenna_status) {
  using enum Antenna_status;
  return std::to_array<binding::Enumerator<Antenna_status>>(
      {{unknown, "unknown"}, {ok, "ok"}, {open, "open"}, {short_circuit, "short circuit"}});
}

/// Also the number of the system's bit in systemsInView, systemsInUse and systemsTracked.
enum class Gnss_system : std::uint32_t {
  gps = 0,
  glonass = 1,
  galileo = 2,
  beidou = 3,
  sbas = 4,
  other = 5,
};
constexpr auto enumerators_of(Gnss_system) {
  using enum Gnss_system;
  return std::to_array<binding::Enumerator<Gnss_system>>({{gps, "GPS"},
                                                          {glonass, "GLONASS"},
                                                          {galileo, "Galileo"},
                                                          {beidou, "BeiDou"},
                                                          {sbas, "SBAS"},
                                                          {other, "other"}});
}

enum class Satellite_usage : std::uint32_t { in_view = 0, tracked = 1, in_solution = 2 };
constexpr auto enumerators_of(Satellite_usage) {
  using enum Satellite_usage;
  return std::to_array<binding::Enumerator<Satellite_usage>>(
      {{in_view, "in view"}, {tracked, "tracked"}, {in_solution, "in the solution"}});
}

/// One position sample of the receiver. A measured quantity counts only if its valueType says so.
struct DT_positions_struct {
  boost::optional<Position_type> positionType;
  boost::optional<std::uint32_t> messageCounter;
  boost::optional<double> LAT;
  boost::optional<binding::Value_type> LAT_valueType;
  boost::optional<double> LON;
  boost::optional<binding::Value_type> LON_valueType;
  boost::optional<float> altitudeMeanSeaLevel;
  boost::optional<binding::Value_type> altitudeMeanSeaLevel_valueType;
  boost::optional<float> altitudeWGS84;
  boost::optional<binding::Value_type> altitudeWGS84_valueType;
  boost::optional<float> yawAngle;
  boost::optional<binding::Value_type> yawAngle_valueType;
  boost::optional<float> yawRate;
  boost::optional<binding::Value_type> yawRate_valueType;
  boost::optional<float> speed2D;
  boost::optional<binding::Value_type> speed2D_valueType;
  boost::optional<float> speedVertical;
  boost::optional<binding::Value_type> speedVertical_valueType;
  boost::optional<float> courseOverGround;
  boost::optional<binding::Value_type> courseOverGround_valueType;
  boost::optional<float> pitchAngle;
  boost::optional<binding::Value_type> pitchAngle_valueType;
  boost::optional<float> pitchRate;
  boost::optional<binding::Value_type> pitchRate_valueType;
  boost::optional<float> rollAngle;
  boost::optional<binding::Value_type> rollAngle_valueType;
  boost::optional<float> rollRate;
  boost::optional<binding::Value_type> rollRate_valueType;
  boost::optional<float> accuracyHorizontal;
  boost::optional<binding::Value_type> accuracyHorizontal_valueType;
  boost::optional<float> accuracyVertical;
  boost::optional<binding::Value_type> accuracyVertical_valueType;
  boost::optional<float> accuracySpeed2D;
  boost::optional<binding::Value_type> accuracySpeed2D_valueType;
  boost::optional<float> accuracySpeedVertical;
  boost::optional<binding::Value_type> accuracySpeedVertical_valueType;
  boost::optional<float> accuracyYawAngle;
  boost::optional<binding::Value_type> accuracyYawAngle_valueType;
  boost::optional<std::uint32_t> ageOfDifferentialData;
  boost::optional<binding::Value_type> ageOfDifferentialData_valueType;
  boost::optional<std::uint32_t> preciseLocalTimeSeconds;
  boost::optional<binding::Value_type> preciseLocalTimeSeconds_valueType;
  boost::optional<std::uint32_t> preciseLocalTimeNanoseconds;
  boost::optional<binding::Value_type> preciseLocalTimeNanoseconds_valueType;
};

/// Quality of the position solution.
struct DT_positionsQuality_struct {
  boost::optional<Position_type> positionType;
  boost::optional<float> gDOP;
  boost::optional<binding::Value_type> gDOP_valueType;
  boost::optional<float> hDOP;
  boost::optional<binding::Value_type> hDOP_valueType;
  boost::optional<float> pDOP;
  boost::optional<binding::Value_type> pDOP_valueType;
  boost::optional<float> vDOP;
  boost::optional<binding::Value_type> vDOP_valueType;
  boost::optional<bool> isActivatedAssistedGNSS;
  boost::optional<Receiver_mode> statusReceiverMode;
  boost::optional<Fix_type> statusFixType;
  boost::optional<std::uint32_t> updateRateGNSS;
  boost::optional<binding::Value_type> updateRateGNSS_valueType;
  boost::optional<std::uint32_t> satsInView;
  boost::optional<binding::Value_type> satsInView_valueType;
  boost::optional<std::uint32_t> systemsInView;
  boost::optional<std::uint32_t> satsInUse;
  boost::optional<binding::Value_type> satsInUse_valueType;
  boost::optional<std::uint32_t> systemsInUse;
  boost::optional<std::uint32_t> satsTracked;
  boost::optional<binding::Value_type> satsTracked_valueType;
  boost::optional<std::uint32_t> systemsTracked;
  boost::optional<std::uint8_t> satsInViewGPS;
  boost::optional<std::uint8_t> satsInViewGLONASS;
  boost::optional<std::uint8_t> satsInViewGalileo;
  boost::optional<std::uint8_t> satsInViewBeiDou;
  boost::optional<std::uint8_t> satsInViewSBAS;
  boost::optional<std::uint8_t> satsInUseGPS;
  boost::optional<std::uint8_t> satsInUseGLONASS;
  boost::optional<std::uint8_t> satsInUseGalileo;
  boost::optional<std::uint8_t> satsInUseBeiDou;
  boost::optional<std::uint8_t> satsInUseSBAS;
  boost::optional<Antenna_status> statusGNSSAntenna;
};

/// One satellite.
struct DT_posGnssSatInfos_struct {
  boost::optional<std::uint32_t> satelliteId;
  boost::optional<Gnss_system> gnssSystem;
  boost::optional<float> elevation;
  boost::optional<binding::Value_type> elevation_valueType;
  boost::optional<float> azimuth;
  boost::optional<binding::Value_type> azimuth_valueType;
  boost::optional<float> carrierToNoise;
  boost::optional<binding::Value_type> carrierToNoise_valueType;
  boost::optional<Satellite_usage> usage;
};

}  // namespace lumo::services::gnss::datatypes

template <>
struct binding::Description<lumo::services::gnss::datatypes::DT_positions_struct> {
  using Record = lumo::services::gnss::datatypes::DT_positions_struct;
  static constexpr std::string_view name = "lumo::services::gnss::datatypes::DT_positions_struct";
  static constexpr auto entries = std::tuple{
      member(0, "positionType", &Record::positionType),
      member(1, "messageCounter", &Record::messageCounter, "", "counts the samples of the sender"),
      quantity(2,
               "LAT",
               &Record::LAT,
               &Record::LAT_valueType,
               "deg",
               "latitude, WGS 84, north positive"),
      quantity(4,
               "LON",
               &Record::LON,
               &Record::LON_valueType,
               "deg",
               "longitude, WGS 84, east positive"),
      quantity(6,
               "altitudeMeanSeaLevel",
               &Record::altitudeMeanSeaLevel,
               &Record::altitudeMeanSeaLevel_valueType,
               "m",
               "height above mean sea level"),
      quantity(8,
               "altitudeWGS84",
               &Record::altitudeWGS84,
               &Record::altitudeWGS84_valueType,
               "m",
               "height above the WGS 84 ellipsoid"),
      quantity(10,
               "yawAngle",
               &Record::yawAngle,
               &Record::yawAngle_valueType,
               "deg",
               "heading, clockwise from true north, 0 to 360"),
      quantity(12,
               "yawRate",
               &Record::yawRate,
               &Record::yawRate_valueType,
               "deg/s",
               "change of the heading, clockwise positive"),
      quantity(14,
               "speed2D",
               &Record::speed2D,
               &Record::speed2D_valueType,
               "m/s",
               "horizontal speed over ground"),
      quantity(16,
               "speedVertical",
               &Record::speedVertical,
               &Record::speedVertical_valueType,
               "m/s",
               "vertical speed, up positive"),
      quantity(18,
               "courseOverGround",
               &Record::courseOverGround,
               &Record::courseOverGround_valueType,
               "deg",
               "direction of movement, clockwise from true north"),
      quantity(20,
               "pitchAngle",
               &Record::pitchAngle,
               &Record::pitchAngle_valueType,
               "deg",
               "pitch, nose up positive"),
      quantity(22,
               "pitchRate",
               &Record::pitchRate,
               &Record::pitchRate_valueType,
               "deg/s",
               "change of the pitch"),
      quantity(24,
               "rollAngle",
               &Record::rollAngle,
               &Record::rollAngle_valueType,
               "deg",
               "roll, right side down positive"),
      quantity(26,
               "rollRate",
               &Record::rollRate,
               &Record::rollRate_valueType,
               "deg/s",
               "change of the roll"),
      quantity(28,
               "accuracyHorizontal",
               &Record::accuracyHorizontal,
               &Record::accuracyHorizontal_valueType,
               "m",
               "horizontal position accuracy, one sigma"),
      quantity(30,
               "accuracyVertical",
               &Record::accuracyVertical,
               &Record::accuracyVertical_valueType,
               "m",
               "vertical position accuracy, one sigma"),
      quantity(32,
               "accuracySpeed2D",
               &Record::accuracySpeed2D,
               &Record::accuracySpeed2D_valueType,
               "m/s",
               "accuracy of speed2D, one sigma"),
      quantity(34,
               "accuracySpeedVertical",
               &Record::accuracySpeedVertical,
               &Record::accuracySpeedVertical_valueType,
               "m/s",
               "accuracy of speedVertical, one sigma"),
      quantity(36,
               "accuracyYawAngle",
               &Record::accuracyYawAngle,
               &Record::accuracyYawAngle_valueType,
               "deg",
               "accuracy of yawAngle, one sigma"),
      quantity(38,
               "ageOfDifferentialData",
               &Record::ageOfDifferentialData,
               &Record::ageOfDifferentialData_valueType,
               "ms",
               "age of the differential corrections in use"),
      quantity(40,
               "preciseLocalTimeSeconds",
               &Record::preciseLocalTimeSeconds,
               &Record::preciseLocalTimeSeconds_valueType,
               "s",
               "time stamp on the precise local time base"),
      quantity(42,
               "preciseLocalTimeNanoseconds",
               &Record::preciseLocalTimeNanoseconds,
               &Record::preciseLocalTimeNanoseconds_valueType,
               "ns",
               "fraction of that time stamp, below 1000000000")};
};

template <>
struct binding::Description<lumo::services::gnss::datatypes::DT_positionsQuality_struct> {
  using Record = lumo::services::gnss::datatypes::DT_positionsQuality_struct;
  static constexpr std::string_view name =
      "lumo::services::gnss::datatypes::DT_positionsQuality_struct";
  static constexpr auto entries = std::tuple{
      member(0, "positionType", &Record::positionType),
      quantity(
          1, "gDOP", &Record::gDOP, &Record::gDOP_valueType, "", "geometric dilution of precision"),
      quantity(3,
               "hDOP",
               &Record::hDOP,
               &Record::hDOP_valueType,
               "",
               "horizontal dilution of precision"),
      quantity(
          5, "pDOP", &Record::pDOP, &Record::pDOP_valueType, "", "position dilution of precision"),
      quantity(
          7, "vDOP", &Record::vDOP, &Record::vDOP_valueType, "", "vertical dilution of precision"),
      member(9,
             "isActivatedAssistedGNSS",
             &Record::isActivatedAssistedGNSS,
             "",
             "assistance data in use"),
      member(10, "statusReceiverMode", &Record::statusReceiverMode),
      member(11, "statusFixType", &Record::statusFixType),
      quantity(12,
               "updateRateGNSS",
               &Record::updateRateGNSS,
               &Record::updateRateGNSS_valueType,
               "Hz",
               "position updates of the receiver"),
      quantity(14,
               "satsInView",
               &Record::satsInView,
               &Record::satsInView_valueType,
               "",
               "satellites above the horizon"),
      member(16,
             "systemsInView",
             &Record::systemsInView,
             "",
             "bit set: bit N stands for the gnssSystem N of a satellite"),
      quantity(17,
               "satsInUse",
               &Record::satsInUse,
               &Record::satsInUse_valueType,
               "",
               "satellites in the solution"),
      member(19, "systemsInUse", &Record::systemsInUse, "", "bit set as in systemsInView"),
      quantity(20,
               "satsTracked",
               &Record::satsTracked,
               &Record::satsTracked_valueType,
               "",
               "satellites whose signal is tracked"),
      member(22, "systemsTracked", &Record::systemsTracked, "", "bit set as in systemsInView"),
      member(23, "satsInViewGPS", &Record::satsInViewGPS, "", "satellites of GPS in view"),
      member(
          24, "satsInViewGLONASS", &Record::satsInViewGLONASS, "", "satellites of GLONASS in view"),
      member(
          25, "satsInViewGalileo", &Record::satsInViewGalileo, "", "satellites of Galileo in view"),
      member(26, "satsInViewBeiDou", &Record::satsInViewBeiDou, "", "satellites of BeiDou in view"),
      member(27, "satsInViewSBAS", &Record::satsInViewSBAS, "", "satellites of SBAS in view"),
      member(28, "satsInUseGPS", &Record::satsInUseGPS, "", "satellites of GPS in use"),
      member(29, "satsInUseGLONASS", &Record::satsInUseGLONASS, "", "satellites of GLONASS in use"),
      member(30, "satsInUseGalileo", &Record::satsInUseGalileo, "", "satellites of Galileo in use"),
      member(31, "satsInUseBeiDou", &Record::satsInUseBeiDou, "", "satellites of BeiDou in use"),
      member(32, "satsInUseSBAS", &Record::satsInUseSBAS, "", "satellites of SBAS in use"),
      member(33, "statusGNSSAntenna", &Record::statusGNSSAntenna)};
};

template <>
struct binding::Description<lumo::services::gnss::datatypes::DT_posGnssSatInfos_struct> {
  using Record = lumo::services::gnss::datatypes::DT_posGnssSatInfos_struct;
  static constexpr std::string_view name =
      "lumo::services::gnss::datatypes::DT_posGnssSatInfos_struct";
  static constexpr auto entries =
      std::tuple{member(0, "satelliteId", &Record::satelliteId, "", "number within its system"),
                 member(1, "gnssSystem", &Record::gnssSystem),
                 quantity(2,
                          "elevation",
                          &Record::elevation,
                          &Record::elevation_valueType,
                          "deg",
                          "above the horizon"),
                 quantity(4,
                          "azimuth",
                          &Record::azimuth,
                          &Record::azimuth_valueType,
                          "deg",
                          "clockwise from true north"),
                 quantity(6,
                          "carrierToNoise",
                          &Record::carrierToNoise,
                          &Record::carrierToNoise_valueType,
                          "dBHz",
                          "carrier to noise density ratio"),
                 member(8, "usage", &Record::usage)};
};
