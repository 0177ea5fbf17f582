#include "tools/gnss-gateway/record_parts.h"

#include "binding/timestamp.h"

namespace gateway {

using namespace lumo::services::gnss::datatypes;
using lumo::services::Position_type;

namespace {

/// From this speed in m/s on, the course over ground serves as the heading. The speed of a receiver
/// is uncertain by about 0.1 m/s across the movement: 2 degrees at this speed, any direction at
/// rest. Below it vehicles also reverse, which turns the course by 180 degrees.
constexpr double min_heading_speed = 3;

}  // namespace

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

}  // namespace gateway
