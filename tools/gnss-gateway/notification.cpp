#include "tools/gnss-gateway/notification.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "binding/timestamp.h"

namespace gateway {
namespace {

using namespace lumo::services::gnss::datatypes;
using lumo::services::Position_type;
using Quality = boost::optional<binding::Value_type>;

template <class Value, class Source>
void physical(boost::optional<Value>& value, Quality& quality, Source source) {
  value = static_cast<Value>(source);
  quality = binding::Value_type::physical_value;
}

/// A value of the source: good, present but marked as unusable, or absent.
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

/// From this speed in m/s on, the course over ground serves as the heading. The speed of a receiver
/// is uncertain by about 0.1 m/s across the movement: 2 degrees at this speed, any direction at
/// rest. Below it vehicles also reverse, which turns the course by 180 degrees.
constexpr double min_heading_speed = 3;

/// Course over ground and heading, by one rule for every source: a measured heading has priority,
/// and the course replaces a missing one where it can. `good`: the source knows its course now.
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

DT_positions_struct new_position(Position_type type, const Context& context) {
  DT_positions_struct record;
  record.positionType = type;
  record.messageCounter = context.message_counter;
  binding::set_timestamp(record, binding::Timestamp::of(context.precise_local_time));
  return record;
}

DT_positionsQuality_struct new_quality(Position_type type,
                                       Fix_type status,
                                       const Context& context) {
  DT_positionsQuality_struct record;
  record.positionType = type;
  record.statusFixType = status;
  record.statusReceiverMode =
      status == Fix_type::none ? Receiver_mode::acquiring : Receiver_mode::navigating;
  if (context.update_rate_hz) {
    physical(record.updateRateGNSS, record.updateRateGNSS_valueType, *context.update_rate_hz);
  }
  return record;
}

/// Satellites counted by system.
struct Count {
  std::array<std::uint8_t, binding::enumerators<Gnss_system>.size()> by_system{};
  std::uint32_t systems = 0;  ///< bit set
  void add(Gnss_system system) {
    auto& count = by_system.at(static_cast<std::size_t>(system));
    count = static_cast<std::uint8_t>(std::min(count + 1, 255));
    systems |= 1U << static_cast<unsigned>(system);
  }
  [[nodiscard]] std::uint8_t of(Gnss_system system) const {
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
  record.satsInViewGPS = count.in_view.of(Gnss_system::gps);
  record.satsInViewGLONASS = count.in_view.of(Gnss_system::glonass);
  record.satsInViewGalileo = count.in_view.of(Gnss_system::galileo);
  record.satsInViewBeiDou = count.in_view.of(Gnss_system::beidou);
  record.satsInViewSBAS = count.in_view.of(Gnss_system::sbas);
  record.satsInUseGPS = count.in_use.of(Gnss_system::gps);
  record.satsInUseGLONASS = count.in_use.of(Gnss_system::glonass);
  record.satsInUseGalileo = count.in_use.of(Gnss_system::galileo);
  record.satsInUseBeiDou = count.in_use.of(Gnss_system::beidou);
  record.satsInUseSBAS = count.in_use.of(Gnss_system::sbas);
}

DT_posGnssSatInfos_struct new_satellite(
    Gnss_system system, std::uint32_t id, bool tracked, bool in_use, Sky_count& count) {
  DT_posGnssSatInfos_struct record;
  record.satelliteId = id;
  record.gnssSystem = system;
  record.usage = in_use    ? Satellite_usage::in_solution
                 : tracked ? Satellite_usage::tracked
                           : Satellite_usage::in_view;
  count.in_view.add(system);
  if (tracked) count.tracked.add(system);
  if (in_use) count.in_use.add(system);
  return record;
}

Gnss_system system_of(nmea::Gnss_system system) {
  switch (system) {
    case nmea::Gnss_system::gps:
      return Gnss_system::gps;
    case nmea::Gnss_system::glonass:
      return Gnss_system::glonass;
    case nmea::Gnss_system::galileo:
      return Gnss_system::galileo;
    case nmea::Gnss_system::beidou:
      return Gnss_system::beidou;
    case nmea::Gnss_system::sbas:
      return Gnss_system::sbas;
    case nmea::Gnss_system::qzss:
    case nmea::Gnss_system::navic:
    case nmea::Gnss_system::unknown:
      break;
  }
  return Gnss_system::other;
}

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

Fix_type status_of(const nmea::Fix& fix) {
  if (!fix.valid) return Fix_type::none;
  switch (fix.quality.value_or(nmea::Fix_quality::autonomous)) {
    case nmea::Fix_quality::estimated:
      return Fix_type::dead_reckoning;
    case nmea::Fix_quality::rtk_fixed:
      return Fix_type::rtk_fixed;
    case nmea::Fix_quality::rtk_float:
      return Fix_type::rtk_float;
    case nmea::Fix_quality::differential:
    case nmea::Fix_quality::precise:
      return Fix_type::differential;
    default:
      break;
  }
  if (fix.dimension) {
    return *fix.dimension == nmea::Fix_dimension::two ? Fix_type::two_dimensional
                                                      : Fix_type::three_dimensional;
  }
  return fix.altitude_msl ? Fix_type::three_dimensional : Fix_type::two_dimensional;
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
  auto record = new_position(Position_type::gnss, context);
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
  auto record = new_position(Position_type::gnss_dr, context);
  fill(record, sample, true);
  fill_direction(record, std::nullopt, sample.speed, sample.heading, true);
  physical(record.yawRate, record.yawRate_valueType, sample.yaw_rate);
  physical(record.pitchAngle, record.pitchAngle_valueType, sample.pitch);
  physical(record.accuracyHorizontal, record.accuracyHorizontal_valueType, sample.dr_accuracy);
  physical(record.accuracyYawAngle, record.accuracyYawAngle_valueType, sample.dr_heading_accuracy);
  return record;
}

/// Quantities from sentences that only some receivers send: an absent one is no error.
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
  auto position = new_position(Position_type::gnss, context);
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
    result.positions[1].positionType = Position_type::gnss_dr;
  }

  auto quality = new_quality(Position_type::gnss, status_of(fix), context);
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
  result.quality[1].positionType = Position_type::gnss_dr;
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

  const Fix_type status = status_of(sample.fix);
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
