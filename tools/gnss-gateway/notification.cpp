#include "tools/gnss-gateway/notification.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "binding/timestamp.h"

namespace gateway {
namespace {

using lumo::services::gnss::datatypes::DT_posGnssSatInfos_struct;
using lumo::services::gnss::datatypes::DT_positions_struct;
using lumo::services::gnss::datatypes::DT_positionsQuality_struct;
using Quality = boost::optional<binding::Value_type>;

constexpr std::uint32_t type_gnss = 1;
constexpr std::uint32_t type_dead_reckoning = 2;

/// statusFixType
enum class Fix_status : std::uint32_t {
  none = 0,
  dead_reckoning = 1,
  two_dimensional = 2,
  three_dimensional = 3,
  differential = 4,
  rtk_float = 5,
  rtk_fixed = 6,
};

template <class Value, class Source>
void physical(boost::optional<Value>& value, Quality& quality, Source source) {
  value = static_cast<Value>(source);
  quality = binding::Value_type::physical_value;
}

/// What the source told: good, or told and marked as not to be used, or not told.
template <class Value, class Source>
void told(boost::optional<Value>& value,
          Quality& quality,
          const std::optional<Source>& source,
          bool good) {
  if (source) value = static_cast<Value>(*source);
  if (!good) {
    quality = binding::Value_type::error;
  } else if (source) {
    quality = binding::Value_type::physical_value;
  }
}

/// Measured by this source, but not now.
template <class Value>
void missing(boost::optional<Value>& value, Quality& quality) {
  value = boost::none;
  quality = binding::Value_type::error;
}

/// Metres per second from which on the direction of movement is where the vehicle points. A
/// receiver's speed is uncertain by about 0.1 m/s across the movement: 2 degrees at this speed, any
/// direction at rest. And below it vehicles reverse, which turns the course by 180 degrees.
constexpr double min_heading_speed = 3;

/// Course over ground and heading, by one rule for every source: a measured heading stands, else
/// the course replaces it where it can. `good`: the source can tell a course now.
void fill_direction(DT_positions_struct& record,
                    const std::optional<double>& course,
                    const std::optional<double>& speed,
                    const std::optional<double>& heading,
                    bool good) {
  told(record.courseOverGround, record.courseOverGround_valueType, course, good);
  if (heading) {
    physical(record.yawAngle, record.yawAngle_valueType, *heading);
  } else if (good && course && speed.value_or(0) >= min_heading_speed) {
    physical(record.yawAngle, record.yawAngle_valueType, *course);
  } else if (!good || course || speed) {
    missing(record.yawAngle, record.yawAngle_valueType);
  }
}

DT_positions_struct new_position(std::uint32_t type, const Context& context) {
  DT_positions_struct record;
  record.positionType = type;
  record.messageCounter = context.message_counter;
  binding::set_timestamp(record, binding::Timestamp::of(context.precise_local_time));
  return record;
}

DT_positionsQuality_struct new_quality(std::uint32_t type,
                                       Fix_status status,
                                       const Context& context) {
  DT_positionsQuality_struct record;
  record.positionType = type;
  record.statusFixType = static_cast<std::uint32_t>(status);
  record.statusReceiverMode = status == Fix_status::none ? 1U : 2U;
  if (context.update_rate_hz) {
    physical(record.updateRateGNSS, record.updateRateGNSS_valueType, *context.update_rate_hz);
  }
  return record;
}

/// gnssSystem of the records
enum class System : std::uint32_t { gps, glonass, galileo, beidou, sbas, other };
constexpr std::size_t system_count = 6;

/// Satellites counted by system.
struct Count {
  std::array<std::uint8_t, system_count> by_system{};
  std::uint32_t systems = 0;  ///< bit set
  void add(System system) {
    auto& count = by_system.at(static_cast<std::size_t>(system));
    count = static_cast<std::uint8_t>(std::min(count + 1, 255));
    systems |= 1U << static_cast<unsigned>(system);
  }
  [[nodiscard]] std::uint8_t of(System system) const {
    return by_system.at(static_cast<std::size_t>(system));
  }
};

struct Sky_count {
  Count in_view;
  Count tracked;
  Count in_use;
};

void fill(DT_positionsQuality_struct& record, const Sky_count& count) {
  record.systemsInView = count.in_view.systems;
  record.systemsTracked = count.tracked.systems;
  record.systemsInUse = count.in_use.systems;
  record.satsInViewGPS = count.in_view.of(System::gps);
  record.satsInViewGLONASS = count.in_view.of(System::glonass);
  record.satsInViewGalileo = count.in_view.of(System::galileo);
  record.satsInViewBeiDou = count.in_view.of(System::beidou);
  record.satsInViewSBAS = count.in_view.of(System::sbas);
  record.satsInUseGPS = count.in_use.of(System::gps);
  record.satsInUseGLONASS = count.in_use.of(System::glonass);
  record.satsInUseGalileo = count.in_use.of(System::galileo);
  record.satsInUseBeiDou = count.in_use.of(System::beidou);
  record.satsInUseSBAS = count.in_use.of(System::sbas);
}

DT_posGnssSatInfos_struct new_satellite(
    System system, std::uint32_t id, bool tracked, bool in_use, Sky_count& count) {
  DT_posGnssSatInfos_struct record;
  record.satelliteId = id;
  record.gnssSystem = static_cast<std::uint32_t>(system);
  record.usage = in_use ? 2U : (tracked ? 1U : 0U);
  count.in_view.add(system);
  if (tracked) count.tracked.add(system);
  if (in_use) count.in_use.add(system);
  return record;
}

System system_of(nmea::Gnss_system system) {
  switch (system) {
    case nmea::Gnss_system::gps:
      return System::gps;
    case nmea::Gnss_system::glonass:
      return System::glonass;
    case nmea::Gnss_system::galileo:
      return System::galileo;
    case nmea::Gnss_system::beidou:
      return System::beidou;
    case nmea::Gnss_system::sbas:
      return System::sbas;
    case nmea::Gnss_system::qzss:
    case nmea::Gnss_system::navic:
    case nmea::Gnss_system::unknown:
      break;
  }
  return System::other;
}

System system_of(drive::Gnss_system system) {
  switch (system) {
    case drive::Gnss_system::gps:
      return System::gps;
    case drive::Gnss_system::glonass:
      return System::glonass;
    case drive::Gnss_system::galileo:
      return System::galileo;
    case drive::Gnss_system::beidou:
      return System::beidou;
  }
  return System::other;
}

Fix_status status_of(const nmea::Fix& fix) {
  if (!fix.valid) return Fix_status::none;
  switch (fix.quality.value_or(nmea::Fix_quality::autonomous)) {
    case nmea::Fix_quality::estimated:
      return Fix_status::dead_reckoning;
    case nmea::Fix_quality::rtk_fixed:
      return Fix_status::rtk_fixed;
    case nmea::Fix_quality::rtk_float:
      return Fix_status::rtk_float;
    case nmea::Fix_quality::differential:
    case nmea::Fix_quality::precise:
      return Fix_status::differential;
    default:
      break;
  }
  if (fix.dimension) {
    return *fix.dimension == nmea::Fix_dimension::two ? Fix_status::two_dimensional
                                                      : Fix_status::three_dimensional;
  }
  return fix.altitude_msl ? Fix_status::three_dimensional : Fix_status::two_dimensional;
}

Fix_status status_of(drive::Fix_type fix) {
  switch (fix) {
    case drive::Fix_type::none:
      break;
    case drive::Fix_type::two_dimensional:
      return Fix_status::two_dimensional;
    case drive::Fix_type::three_dimensional:
      return Fix_status::three_dimensional;
  }
  return Fix_status::none;
}

/// The members that a GNSS fix and dead reckoning have in common.
void fill(DT_positions_struct& record, const drive::Sample& sample, bool altitude_known) {
  physical(record.LAT, record.LAT_valueType, sample.latitude);
  physical(record.LON, record.LON_valueType, sample.longitude);
  physical(record.altitudeMeanSeaLevel, record.altitudeMeanSeaLevel_valueType, sample.altitude_msl);
  physical(record.altitudeWGS84, record.altitudeWGS84_valueType,
           sample.altitude_msl + sample.geoid_separation);
  physical(record.speed2D, record.speed2D_valueType, sample.speed);
  physical(record.speedVertical, record.speedVertical_valueType, sample.climb);
  if (!altitude_known) {
    missing(record.altitudeMeanSeaLevel, record.altitudeMeanSeaLevel_valueType);
    missing(record.altitudeWGS84, record.altitudeWGS84_valueType);
    missing(record.speedVertical, record.speedVertical_valueType);
  }
}

DT_positions_struct gnss_position(const drive::Sample& sample,
                                  const drive::Sky& sky,
                                  const Context& context) {
  auto record = new_position(type_gnss, context);
  const bool solved = sample.fix != drive::Fix_type::none;
  if (!solved) {
    missing(record.LAT, record.LAT_valueType);
    missing(record.LON, record.LON_valueType);
    missing(record.altitudeMeanSeaLevel, record.altitudeMeanSeaLevel_valueType);
    missing(record.altitudeWGS84, record.altitudeWGS84_valueType);
    missing(record.speed2D, record.speed2D_valueType);
    missing(record.speedVertical, record.speedVertical_valueType);
    fill_direction(record, std::nullopt, std::nullopt, std::nullopt, false);
    missing(record.accuracyHorizontal, record.accuracyHorizontal_valueType);
    missing(record.accuracyVertical, record.accuracyVertical_valueType);
    missing(record.accuracySpeed2D, record.accuracySpeed2D_valueType);
    return record;
  }
  const bool spatial = sample.fix == drive::Fix_type::three_dimensional;
  fill(record, sample, spatial);
  fill_direction(record, sample.heading, sample.speed, std::nullopt, true);
  told(record.accuracyHorizontal, record.accuracyHorizontal_valueType,
       std::optional(sky.horizontal_accuracy), true);
  told(record.accuracyVertical, record.accuracyVertical_valueType,
       std::optional(sky.vertical_accuracy), spatial);
  physical(record.accuracySpeed2D, record.accuracySpeed2D_valueType, 0.1);
  return record;
}

DT_positions_struct dead_reckoned_position(const drive::Sample& sample, const Context& context) {
  auto record = new_position(type_dead_reckoning, context);
  fill(record, sample, true);
  fill_direction(record, std::nullopt, sample.speed, sample.heading, true);
  physical(record.yawRate, record.yawRate_valueType, sample.yaw_rate);
  physical(record.pitchAngle, record.pitchAngle_valueType, sample.pitch);
  physical(record.accuracyHorizontal, record.accuracyHorizontal_valueType, sample.dr_accuracy);
  physical(record.accuracyYawAngle, record.accuracyYawAngle_valueType, sample.dr_heading_accuracy);
  return record;
}

/// What receivers tell in sentences of their own, and most do not: absent is no error here.
void fill_supplements(DT_positions_struct& record, const nmea::Fix& fix) {
  if (fix.accuracy_horizontal) {
    told(record.accuracyHorizontal, record.accuracyHorizontal_valueType, fix.accuracy_horizontal,
         fix.valid);
  }
  if (fix.accuracy_vertical) {
    told(record.accuracyVertical, record.accuracyVertical_valueType, fix.accuracy_vertical,
         fix.valid);
  }
  if (fix.age_of_corrections) {
    told(record.ageOfDifferentialData, record.ageOfDifferentialData_valueType,
         std::optional(std::llround(*fix.age_of_corrections * 1000)), fix.valid);
  }
  if (fix.heading) {
    told(record.accuracyYawAngle, record.accuracyYawAngle_valueType, fix.heading_accuracy, true);
  }
  told(record.pitchAngle, record.pitchAngle_valueType, fix.pitch, true);
  told(record.rollAngle, record.rollAngle_valueType, fix.roll, true);
}

}  // namespace

Notification to_notification(const nmea::Fix& fix, const Context& context) {
  Notification result;
  auto position = new_position(type_gnss, context);
  std::optional<double> latitude;
  std::optional<double> longitude;
  if (fix.position) {
    latitude = fix.position->latitude;
    longitude = fix.position->longitude;
  }
  told(position.LAT, position.LAT_valueType, latitude, fix.valid);
  told(position.LON, position.LON_valueType, longitude, fix.valid);
  told(position.altitudeMeanSeaLevel, position.altitudeMeanSeaLevel_valueType, fix.altitude_msl,
       fix.valid);
  told(position.altitudeWGS84, position.altitudeWGS84_valueType, fix.altitude_wgs84(), fix.valid);
  told(position.speed2D, position.speed2D_valueType, fix.speed, fix.valid);
  fill_direction(position, fix.course, fix.speed, fix.heading, fix.valid);
  fill_supplements(position, fix);
  if (!fix.supplement) {
    result.positions = {position, position};
    result.positions[1].positionType = type_dead_reckoning;
  }

  auto quality = new_quality(type_gnss, status_of(fix), context);
  told(quality.hDOP, quality.hDOP_valueType, fix.hdop, true);
  told(quality.pDOP, quality.pDOP_valueType, fix.pdop, true);
  told(quality.vDOP, quality.vDOP_valueType, fix.vdop, true);
  told(quality.satsInView, quality.satsInView_valueType, fix.satellites_in_view, true);
  told(quality.satsInUse, quality.satsInUse_valueType, fix.satellites_in_use, true);
  told(quality.satsTracked, quality.satsTracked_valueType, fix.satellites_tracked, true);
  if (fix.satellites) {
    Sky_count count;
    auto& list = result.satellites.emplace();
    for (const auto& satellite : *fix.satellites) {
      auto record = new_satellite(system_of(satellite.system), satellite.id,
                                  satellite.signal.value_or(0) > 0, satellite.in_use, count);
      told(record.elevation, record.elevation_valueType, satellite.elevation, true);
      told(record.azimuth, record.azimuth_valueType, satellite.azimuth, true);
      told(record.carrierToNoise, record.carrierToNoise_valueType, satellite.signal, true);
      list.push_back(record);
    }
    fill(quality, count);
  }
  result.quality = {quality, quality};
  result.quality[1].positionType = type_dead_reckoning;
  return result;
}

Notification to_notification(const drive::Sample& sample,
                             const drive::Sky& sky,
                             const Context& context) {
  Notification result;
  result.positions = {gnss_position(sample, sky, context), dead_reckoned_position(sample, context)};

  Sky_count count;
  auto& list = result.satellites.emplace();
  list.reserve(sky.satellites.size());
  for (const auto& satellite : sky.satellites) {
    const bool tracked = satellite.signal > 0;
    auto record =
        new_satellite(system_of(satellite.system), satellite.id, tracked, satellite.in_use, count);
    physical(record.elevation, record.elevation_valueType, satellite.elevation);
    physical(record.azimuth, record.azimuth_valueType, satellite.azimuth);
    if (tracked) physical(record.carrierToNoise, record.carrierToNoise_valueType, satellite.signal);
    list.push_back(record);
  }

  const Fix_status status = status_of(sample.fix);
  auto quality = new_quality(type_gnss, status, context);
  quality.isActivatedAssistedGNSS = false;
  quality.statusGNSSAntenna = 1U;
  const bool solved = sky.gdop > 0;
  const auto dilution = [&](double value) { return solved ? std::optional(value) : std::nullopt; };
  told(quality.gDOP, quality.gDOP_valueType, dilution(sky.gdop), solved);
  told(quality.hDOP, quality.hDOP_valueType, dilution(sky.hdop), solved);
  told(quality.pDOP, quality.pDOP_valueType, dilution(sky.pdop), solved);
  told(quality.vDOP, quality.vDOP_valueType, dilution(sky.vdop), solved);
  physical(quality.satsInView, quality.satsInView_valueType, sky.satellites.size());
  physical(quality.satsInUse, quality.satsInUse_valueType, sky.in_use);
  physical(quality.satsTracked, quality.satsTracked_valueType, sky.tracked);
  fill(quality, count);
  auto dead_reckoned = quality;
  dead_reckoned.positionType = type_dead_reckoning;
  if (status == Fix_status::none) {
    dead_reckoned.statusFixType = static_cast<std::uint32_t>(Fix_status::dead_reckoning);
    dead_reckoned.statusReceiverMode = 2U;
  }
  result.quality = {quality, dead_reckoned};
  return result;
}

}  // namespace gateway
