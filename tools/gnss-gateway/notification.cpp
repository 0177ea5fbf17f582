#include "tools/gnss-gateway/notification.h"

#include <cmath>
#include <type_traits>

#include "binding/timestamp.h"
#include "tools/gnss-gateway/record_parts.h"

namespace gateway {
namespace {

using namespace lumo::services::gnss::datatypes;
using lumo::services::Position_type;

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

}  // namespace gateway
