#include "tools/gnss-gateway/notification.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <type_traits>

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
/// The accuracy is that of the heading or of the course, whichever yawAngle is.
void fill_direction(DT_positions_struct& record, const nmea::Fix& fix, bool good) {
  told(record.courseOverGround, record.courseOverGround_valueType, fix.course, good);
  if (fix.heading) {
    physical(record.yawAngle, record.yawAngle_valueType, *fix.heading);
    told(record.accuracyYawAngle, record.accuracyYawAngle_valueType, fix.heading_accuracy, true);
    return;
  }
  const bool serves = good && fix.course && fix.speed.value_or(0) >= min_heading_speed;
  if (serves) {
    physical(record.yawAngle, record.yawAngle_valueType, *fix.course);
  } else if (!good || fix.course || fix.speed) {
    missing(record.yawAngle, record.yawAngle_valueType);
  }
  if (fix.accuracy_course) {
    told(record.accuracyYawAngle, record.accuracyYawAngle_valueType, fix.accuracy_course, serves);
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

/// Quantities that only some receivers tell: an absent one is no error.
void fill_supplements(DT_positions_struct& record, const nmea::Fix& fix, bool good) {
  const auto add = [&](auto& value, Quality& quality, const auto& source) {
    if (source) told(value, quality, source, good);
  };
  add(record.speedVertical, record.speedVertical_valueType, fix.climb);
  add(record.accuracyHorizontal, record.accuracyHorizontal_valueType, fix.accuracy_horizontal);
  add(record.accuracyVertical, record.accuracyVertical_valueType, fix.accuracy_vertical);
  add(record.accuracySpeed2D, record.accuracySpeed2D_valueType, fix.accuracy_speed);
  add(record.accuracySpeedVertical, record.accuracySpeedVertical_valueType, fix.accuracy_climb);
  if (fix.age_of_corrections) {
    told(record.ageOfDifferentialData, record.ageOfDifferentialData_valueType,
         std::optional(std::llround(*fix.age_of_corrections * 1000)), good);
  }
  // Measured without a position too.
  told(record.pitchAngle, record.pitchAngle_valueType, fix.pitch, true);
  told(record.rollAngle, record.rollAngle_valueType, fix.roll, true);
  told(record.yawRate, record.yawRate_valueType, fix.yaw_rate, true);
  told(record.pitchRate, record.pitchRate_valueType, fix.pitch_rate, true);
  told(record.rollRate, record.rollRate_valueType, fix.roll_rate, true);
}

DT_positions_struct position_of(const nmea::Fix& fix,
                                Position_type type,
                                bool good,
                                const Context& context) {
  auto record = new_position(type, context);
  std::optional<double> latitude;
  std::optional<double> longitude;
  if (fix.position) {
    latitude = fix.position->latitude;
    longitude = fix.position->longitude;
  }
  told(record.LAT, record.LAT_valueType, latitude, good);
  told(record.LON, record.LON_valueType, longitude, good);
  told(record.altitudeMeanSeaLevel, record.altitudeMeanSeaLevel_valueType, fix.altitude_msl, good);
  told(record.altitudeWGS84, record.altitudeWGS84_valueType, fix.altitude_wgs84(), good);
  told(record.speed2D, record.speed2D_valueType, fix.speed, good);
  fill_direction(record, fix, good);
  fill_supplements(record, fix, good);
  return record;
}

Antenna_status status_of(nmea::Antenna antenna) {
  switch (antenna) {
    case nmea::Antenna::unknown:
      break;
    case nmea::Antenna::ok:
      return Antenna_status::ok;
    case nmea::Antenna::open:
      return Antenna_status::open;
    case nmea::Antenna::short_circuit:
      return Antenna_status::short_circuit;
  }
  return Antenna_status::unknown;
}

void complete(Known_quantities::Mask& known, auto& record, bool valid, bool present) {
  using Record = std::decay_t<decltype(record)>;
  std::size_t index = 0;
  binding::for_each_quantity<Record>([&](const auto& quantity) {
    auto& quality = record.*quantity.quality.pointer;
    if (quality) known.set(index);
    if (!valid && !quality && known.test(index)) quality = binding::Value_type::error;
    ++index;
  });
  if (present) return;
  const Record told = record;
  binding::for_each_quantity<Record>([&](const auto& quantity) {
    if (record.*quantity.quality.pointer) {
      missing(record.*quantity.value.pointer, record.*quantity.quality.pointer);
    }
  });
  if constexpr (std::is_same_v<Record, DT_positions_struct>) {
    binding::set_timestamp(record, binding::Timestamp{*told.preciseLocalTimeSeconds,
                                                      *told.preciseLocalTimeNanoseconds});
  }
}

}  // namespace

void Known_quantities::complete(Notification& notification, const nmea::Fix& fix) {
  for (auto& record : notification.positions)
    gateway::complete(positions_, record, fix.valid, fix.present);
  for (auto& record : notification.quality)
    gateway::complete(quality_, record, fix.valid, fix.present);
}

Notification to_notification(const nmea::Fix& fix, const Context& context) {
  Notification result;
  // Dead reckoning goes on where the satellites give no position.
  const Fix_type status = status_of(fix);
  const bool reckoned = status == Fix_type::dead_reckoning;
  if (!fix.supplement) {
    result.positions = {position_of(fix, Position_type::gnss, fix.valid && !reckoned, context),
                        position_of(fix, Position_type::gnss_dr, fix.valid, context)};
  }

  auto quality = new_quality(Position_type::gnss, status, context);
  if (!fix.present) quality.statusReceiverMode = Receiver_mode::off;
  told(quality.gDOP, quality.gDOP_valueType, fix.gdop, true);
  told(quality.hDOP, quality.hDOP_valueType, fix.hdop, true);
  told(quality.pDOP, quality.pDOP_valueType, fix.pdop, true);
  told(quality.vDOP, quality.vDOP_valueType, fix.vdop, true);
  told(quality.satsInView, quality.satsInView_valueType, fix.satellites_in_view, true);
  told(quality.satsInUse, quality.satsInUse_valueType, fix.satellites_in_use, true);
  told(quality.satsTracked, quality.satsTracked_valueType, fix.satellites_tracked, true);
  if (fix.antenna) quality.statusGNSSAntenna = status_of(*fix.antenna);
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
  if (reckoned) {
    result.quality[0].statusFixType = Fix_type::none;
    result.quality[0].statusReceiverMode = Receiver_mode::acquiring;
  }
  return result;
}

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
