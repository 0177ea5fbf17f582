/// The notification of a synthetic drive.
#include "tools/gnss-gateway/notification.h"
#include "tools/gnss-gateway/record_parts.h"

namespace gateway {
namespace {

using namespace lumo::services::gnss::datatypes;
using lumo::services::Position_type;

Gnss_system system_of(drive::Gnss_system system) {
  switch (system) {
    case drive::Gnss_system::gps:
      return Gnss_system::gps;
    case drive::Gnss_system::glonass:
      return Gnss_system::glonass;
    case drive::Gnss_system::galileo:
      return Gnss_system::galileo;
    case drive::Gnss_system::beidou:
      return Gnss_system::beidou;
  }
  return Gnss_system::other;
}

Fix_type status_of(drive::Fix_type fix) {
  switch (fix) {
    case drive::Fix_type::none:
      break;
    case drive::Fix_type::two_dimensional:
      return Fix_type::two_dimensional;
    case drive::Fix_type::three_dimensional:
      return Fix_type::three_dimensional;
  }
  return Fix_type::none;
}

void lose_height(DT_positions_struct& record) {
  missing(record.altitudeMeanSeaLevel, record.altitudeMeanSeaLevel_valueType);
  missing(record.altitudeWGS84, record.altitudeWGS84_valueType);
  missing(record.speedVertical, record.speedVertical_valueType);
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
  if (!altitude_known) lose_height(record);
}

DT_positions_struct gnss_position(const drive::Sample& sample,
                                  const drive::Sky& sky,
                                  const Context& context) {
  auto record = new_position(Position_type::gnss, context);
  const bool solved = sample.fix != drive::Fix_type::none;
  if (!solved) {
    missing(record.LAT, record.LAT_valueType);
    missing(record.LON, record.LON_valueType);
    lose_height(record);
    missing(record.speed2D, record.speed2D_valueType);
    fill_direction(record, {}, false);
    missing(record.accuracyHorizontal, record.accuracyHorizontal_valueType);
    missing(record.accuracyVertical, record.accuracyVertical_valueType);
    missing(record.accuracySpeed2D, record.accuracySpeed2D_valueType);
    return record;
  }
  const bool spatial = sample.fix == drive::Fix_type::three_dimensional;
  fill(record, sample, spatial);
  nmea::Fix direction;
  direction.course = sample.heading;
  direction.speed = sample.speed;
  fill_direction(record, direction, true);
  told(record.accuracyHorizontal, record.accuracyHorizontal_valueType,
       std::optional(sky.horizontal_accuracy), true);
  told(record.accuracyVertical, record.accuracyVertical_valueType,
       std::optional(sky.vertical_accuracy), spatial);
  physical(record.accuracySpeed2D, record.accuracySpeed2D_valueType, 0.1);
  return record;
}

DT_positions_struct dead_reckoned_position(const drive::Sample& sample, const Context& context) {
  auto record = new_position(Position_type::gnss_dr, context);
  fill(record, sample, true);
  physical(record.yawAngle, record.yawAngle_valueType, sample.heading);
  physical(record.yawRate, record.yawRate_valueType, sample.yaw_rate);
  physical(record.pitchAngle, record.pitchAngle_valueType, sample.pitch);
  physical(record.accuracyHorizontal, record.accuracyHorizontal_valueType, sample.dr_accuracy);
  physical(record.accuracyYawAngle, record.accuracyYawAngle_valueType, sample.dr_heading_accuracy);
  return record;
}

}  // namespace

Notification to_notification(const drive::Sample& gnss,
                             const drive::Sample& reckoned,
                             const drive::Sky& sky,
                             const Context& context) {
  Notification result;
  result.positions = {gnss_position(gnss, sky, context), dead_reckoned_position(reckoned, context)};

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

  const Fix_type status = status_of(gnss.fix);
  auto quality = new_quality(Position_type::gnss, status, context);
  quality.isActivatedAssistedGNSS = false;
  quality.statusGNSSAntenna = Antenna_status::ok;
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
  dead_reckoned.positionType = Position_type::gnss_dr;
  if (status == Fix_type::none) {
    dead_reckoned.statusFixType = Fix_type::dead_reckoning;
    dead_reckoned.statusReceiverMode = Receiver_mode::navigating;
  }
  result.quality = {quality, dead_reckoned};
  return result;
}

}  // namespace gateway
