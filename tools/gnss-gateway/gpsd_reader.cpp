#include "tools/gnss-gateway/gpsd_reader.h"

#include <gps.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "tools/nmea/satellite_number.h"

extern "C" {
/// Reads one report; 0 if it has no error. libgps exports it and does not declare it. gps_unpack()
/// calls it again and again for the same report after an error, without an end.
int libgps_json_unpack(const char* report, gps_data_t* data, const char** end);
}

namespace gateway {
namespace {

using nmea::Fix;

std::optional<double> finite(double value) {
  return std::isfinite(value) ? std::optional(value) : std::nullopt;
}

std::optional<double> within(double value, double low, double high) {
  return value >= low && value <= high ? std::optional(value) : std::nullopt;
}

/// An accuracy, a speed, a dilution.
std::optional<double> magnitude(double value) {
  return value >= 0 ? finite(value) : std::nullopt;
}

std::optional<nmea::Utc_time> utc_of(const timespec_t& time) {
  using namespace std::chrono;
  constexpr auto last = floor<seconds>(nmea::Utc_time::max()).time_since_epoch();
  if (time.tv_sec <= 0 || time.tv_sec >= last.count()) return std::nullopt;
  return nmea::Utc_time(seconds(time.tv_sec) + nanoseconds(time.tv_nsec));
}

std::optional<nmea::Fix_quality> quality_of(int status) {
  using enum nmea::Fix_quality;
  switch (status) {
    case STATUS_DGPS_FIX:
      return differential;
    case STATUS_RTK_FIX:
      return rtk_fixed;
    case STATUS_RTK_FLT:
      return rtk_float;
    case STATUS_DR:
      return estimated;
    case STATUS_SIM:
      return simulated;
    default:  // the dimension says more
      return std::nullopt;
  }
}

Fix position_of(const gps_fix_t& told) {
  Fix fix;
  fix.utc = utc_of(told.time);
  const auto latitude = within(told.latitude, -90, 90);
  const auto longitude = within(told.longitude, -180, 180);
  if (latitude && longitude) fix.position = nmea::Coordinates{*latitude, *longitude};
  fix.valid = told.mode >= MODE_2D && fix.position;
  fix.altitude_msl = finite(told.altMSL);
  fix.altitude_ellipsoid = finite(told.altHAE);
  fix.geoid_separation = finite(told.geoid_sep);
  if (!fix.altitude_msl && fix.altitude_ellipsoid && fix.geoid_separation) {
    fix.altitude_msl = *fix.altitude_ellipsoid - *fix.geoid_separation;
  }
  fix.speed = magnitude(told.speed);
  fix.climb = finite(told.climb);
  fix.course = within(told.track, 0, 360);
  fix.accuracy_horizontal = magnitude(told.eph);
  if (!fix.accuracy_horizontal) {
    fix.accuracy_horizontal = magnitude(std::hypot(told.epx, told.epy));
  }
  fix.accuracy_vertical = magnitude(told.epv);
  fix.accuracy_speed = magnitude(told.eps);
  fix.accuracy_climb = magnitude(told.epc);
  fix.accuracy_course = within(told.epd, 0, 360);
  if (!fix.valid) return fix;
  fix.dimension = told.mode == MODE_2D ? nmea::Fix_dimension::two : nmea::Fix_dimension::three;
  fix.quality = quality_of(told.status);
  fix.age_of_corrections = within(told.dgps_age, 0, 999'999);
  return fix;
}

nmea::Satellite_number number_of(const satellite_t& told) {
  using nmea::Talker;
  constexpr unsigned first_imes = 173;
  if (told.svid != 0) {
    switch (told.gnssid) {
      case GNSSID_GPS:
      case GNSSID_SBAS:
        return nmea::satellite_number(Talker::gps, told.svid);
      case GNSSID_GAL:
        return nmea::satellite_number(Talker::galileo, told.svid);
      case GNSSID_BD:
        return nmea::satellite_number(Talker::beidou, told.svid);
      case GNSSID_IMES:
        return nmea::satellite_number(Talker::combined, first_imes - 1 + told.svid);
      case GNSSID_QZSS:
        return nmea::satellite_number(Talker::qzss, told.svid);
      case GNSSID_GLO:
        return nmea::satellite_number(Talker::glonass, told.svid);
      case GNSSID_IRNSS:
        return nmea::satellite_number(Talker::navic, told.svid);
      default:
        break;
    }
  }
  return nmea::satellite_number(Talker::combined,
                                static_cast<unsigned>(std::max<int>(told.PRN, 0)));
}

nmea::Satellite satellite_of(const satellite_t& told) {
  const auto number = number_of(told);
  nmea::Satellite satellite;
  satellite.system = number.system;
  satellite.id = number.id;
  satellite.in_use = told.used;
  satellite.elevation = within(told.elevation, -90, 90);
  satellite.azimuth = within(told.azimuth, 0, 360);
  if (satellite.azimuth == 360) satellite.azimuth = 0;
  satellite.signal = within(told.ss, 0, 254);
  return satellite;
}

std::string text_of(const nlohmann::json& object, const char* name) {
  const auto member = object.find(name);
  return member != object.end() && member->is_string() ? member->get<std::string>() : std::string();
}

template <class Number>
std::optional<Number> number_of(const nlohmann::json& object, const char* name) {
  const auto member = object.find(name);
  if (member == object.end() || !member->is_number()) return std::nullopt;
  return member->get<Number>();
}

/// A TPV that does not say whether there is a position leaves the last one in force for this time.
constexpr auto memory = std::chrono::seconds(2);

/// libgps 3.22 does not read this member of newer versions of gpsd.
std::optional<nmea::Antenna> antenna_of(const nlohmann::json& report) {
  const auto status = number_of<int>(report, "ant");
  if (!status || *status < 0 || *status > static_cast<int>(nmea::Antenna::short_circuit)) {
    return std::nullopt;
  }
  return static_cast<nmea::Antenna>(*status);
}

template <class T>
void renew(std::optional<T>& target, const std::optional<T>& source) {
  if (source) target = source;
}

}  // namespace

Gpsd_reader::Gpsd_reader(std::string wanted)
    : wanted_(std::move(wanted)), data_(std::make_unique<gps_data_t>()) {
  line_.reserve(max_line);
}

Gpsd_reader::~Gpsd_reader() = default;

void Gpsd_reader::feed(std::span<const char> bytes, const Sink& sink) {
  for (const char c : bytes) {
    if (c == '\n') {
      if (too_long_) {
        ++counters_.malformed;
      } else {
        take_line(sink);
      }
      line_.clear();
      too_long_ = false;
    } else if (line_.size() == max_line) {
      too_long_ = true;
    } else {
      line_.push_back(c);
    }
  }
}

bool Gpsd_reader::follows(const std::string& device, bool any_device) const {
  if (device.empty()) return true;
  if (!wanted_.empty()) return device == wanted_;
  return any_device || followed_.empty() || device == followed_;
}

void Gpsd_reader::take_line(const Sink& sink) {
  if (line_.find_first_not_of(" \t\r") == std::string::npos) return;
  auto report = nlohmann::json::parse(line_, nullptr, false);
  if (!report.is_object()) {
    ++counters_.malformed;
    return;
  }
  const std::string type = text_of(report, "class");
  const auto is_ours = [&](const std::string& path) {
    return path == (wanted_.empty() ? followed_ : wanted_);
  };
  if (type == "DEVICE") {
    if (is_ours(text_of(report, "path"))) missing_ = number_of<double>(report, "activated") == 0;
  } else if (type == "DEVICES") {
    const auto list = report.find("devices");
    const bool listed = list != report.end() && list->is_array();
    missing_ = !listed || std::none_of(list->begin(), list->end(), [&](const auto& device) {
      return (wanted_.empty() && followed_.empty()) ||
             (device.is_object() && is_ours(text_of(device, "path")));
    });
  }
  const bool attitude = type == "ATT" || type == "IMU";
  const bool known = attitude || type == "TPV" || type == "SKY" || type == "GST";
  const std::string device = text_of(report, "device");
  if (!known || !follows(device, attitude)) {
    ++counters_.other_reports;
    return;
  }
  const auto antenna = antenna_of(report);
  const auto yaw_rate = number_of<double>(report, "gyro_z");  // libgps has no member for it
  const bool has_satellites = report.contains("satellites");
  // A newer gpsd may tell more, and libgps stops at a list or an object that it does not know.
  bool is_changed = false;
  for (auto member = report.begin(); member != report.end();) {
    const bool unknown = member->is_structured() && member.key() != "satellites";
    is_changed |= unknown;
    member = unknown ? report.erase(member) : std::next(member);
  }
  if (type == "IMU") {
    // libgps knows the same members under the other name.
    report["class"] = "ATT";
    is_changed = true;
  }
  if (is_changed) line_ = report.dump();
  if (!unpack()) {
    ++counters_.malformed;
    return;
  }
  ++counters_.reports;
  if (type == "TPV" && number_of<int>(report, "mode")) {
    if (!device.empty()) followed_ = device;
    take_position(antenna, sink);
  } else if (type == "SKY" && (data_->set & SATELLITE_SET) != 0) {
    take_sky(has_satellites);
  } else if (type == "GST" && (data_->set & GST_SET) != 0) {
    take_accuracy();
  } else if (attitude && (data_->set & ATTITUDE_SET) != 0) {
    take_attitude(yaw_rate);
  }
}

bool Gpsd_reader::unpack() {
  data_->set = 0;
  const char* end = nullptr;
  if (libgps_json_unpack(line_.c_str(), data_.get(), &end) != 0) return false;
  // libgps may stop within the report without an error.
  return end != nullptr && std::string_view(end).find_first_not_of(" \t\r") == std::string::npos;
}

void Gpsd_reader::take_position(std::optional<nmea::Antenna> antenna, const Sink& sink) {
  auto fix = position_of(data_->fix);
  fix.antenna = antenna;
  missing_ = false;
  if (is_repetition(fix)) {
    ++counters_.repeated;
    return;
  }
  // Of several TPV of one instant in a burst, the last one knows most.
  const bool same_instant = unsent_ && position_->utc == fix.utc;
  if (same_instant && (fix.valid || !position_->valid)) {
    ++counters_.repeated;
  } else if (unsent_) {
    send(sink);
  }
  position_ = fix;
  unsent_ = true;
}

/// gpsd repeats the last TPV, or a part of it, around the beginning of a new cycle of the receiver.
/// A TPV of mode 0 does not say whether there is a position.
bool Gpsd_reader::is_repetition(const nmea::Fix& fix) const {
  if (!fix.utc || !position_ || !position_->utc) return false;
  if (position_ == fix) return true;
  const bool silent = data_->fix.mode == MODE_NOT_SEEN && position_->valid;
  return silent && std::chrono::abs(*fix.utc - *position_->utc) <= memory;
}

void Gpsd_reader::take_sky(bool has_satellites) {
  sky_is_new_ = true;
  const auto& dop = data_->dop;
  sky_.gdop = magnitude(dop.gdop);
  sky_.pdop = magnitude(dop.pdop);
  sky_.hdop = magnitude(dop.hdop);
  sky_.vdop = magnitude(dop.vdop);
  if (!has_satellites) return;  // dilutions only: the list stays in force

  auto& list = sky_.satellites.emplace();
  const std::span<const satellite_t> skyview(data_->skyview);
  for (const auto& told : skyview) {
    if (told.PRN <= 0 && told.svid == 0) continue;
    nmea::add_signal(list, satellite_of(told));
  }
  const auto count = [&](auto&& holds) {
    return static_cast<unsigned>(std::count_if(list.begin(), list.end(), holds));
  };
  sky_.satellites_in_view = static_cast<unsigned>(list.size());
  sky_.satellites_in_use = count([](const auto& satellite) { return satellite.in_use; });
  sky_.satellites_tracked =
      count([](const auto& satellite) { return satellite.signal.value_or(0) > 0; });
}

void Gpsd_reader::take_accuracy() {
  const auto& told = data_->gst;
  accuracy_.utc = utc_of(told.utctime);
  accuracy_.accuracy_horizontal =
      magnitude(std::hypot(told.lat_err_deviation, told.lon_err_deviation));
  accuracy_.accuracy_vertical = magnitude(told.alt_err_deviation);
}

void Gpsd_reader::take_attitude(const std::optional<double>& yaw_rate) {
  const auto& told = data_->attitude;
  auto heading = within(told.heading, 0, 360);
  if (!heading) heading = within(told.yaw, 0, 360);
  renew(attitude_.heading, heading);
  renew(attitude_.pitch, within(told.pitch, -90, 90));
  renew(attitude_.roll, within(told.roll, -180, 180));
  renew(attitude_.roll_rate, finite(told.gyro_x));
  renew(attitude_.pitch_rate, finite(told.gyro_y));
  renew(attitude_.yaw_rate, yaw_rate);
}

void Gpsd_reader::pause(const Sink& sink) {
  if (unsent_ || (sky_is_new_ && position_)) send(sink);
}

void Gpsd_reader::send(const Sink& sink) {
  Fix fix = *position_;
  fix.supplement = !unsent_;
  if (accuracy_.utc == fix.utc) {
    if (!fix.accuracy_horizontal) fix.accuracy_horizontal = accuracy_.accuracy_horizontal;
    if (!fix.accuracy_vertical) fix.accuracy_vertical = accuracy_.accuracy_vertical;
  }
  if (unsent_) {
    fix.heading = attitude_.heading;
    fix.pitch = attitude_.pitch;
    fix.roll = attitude_.roll;
    fix.yaw_rate = attitude_.yaw_rate;
    fix.pitch_rate = attitude_.pitch_rate;
    fix.roll_rate = attitude_.roll_rate;
    attitude_ = {};
  }
  fix.gdop = sky_.gdop;
  fix.pdop = sky_.pdop;
  fix.hdop = sky_.hdop;
  fix.vdop = sky_.vdop;
  fix.satellites = sky_.satellites;
  fix.satellites_in_view = sky_.satellites_in_view;
  fix.satellites_in_use = sky_.satellites_in_use;
  fix.satellites_tracked = sky_.satellites_tracked;
  unsent_ = sky_is_new_ = false;
  sink(fix);
}

void Gpsd_reader::restart() {
  line_.clear();
  too_long_ = false;
  forget();
}

void Gpsd_reader::forget() {
  missing_ = unsent_ = sky_is_new_ = false;
  followed_.clear();
  position_.reset();
  sky_ = accuracy_ = attitude_ = {};
}

}  // namespace gateway
