#include "tools/posctl/track/track_point.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "binding/record.h"

namespace posctl::track {

std::optional<double> number_of(const Json& record, const std::string& name) {
  const auto value = record.find(name);
  if (value == record.end() || !value->is_number()) return std::nullopt;
  const auto quality = record.find(name + "_valueType");
  if (quality != record.end() && *quality != to_json(binding::Value_type::physical_value))
    return std::nullopt;
  const auto number = value->get<double>();
  if (!std::isfinite(number)) return std::nullopt;
  return number;
}

std::optional<Point> point_of(const Json& record, std::chrono::nanoseconds ahead) {
  const auto latitude = number_of(record, "LAT");
  const auto longitude = number_of(record, "LON");
  if (!latitude || !longitude || std::abs(*latitude) > 90 || std::abs(*longitude) > 180)
    return std::nullopt;
  Point point;
  point.latitude = *latitude;
  point.longitude = *longitude;
  const auto seconds = number_of(record, "preciseLocalTimeSeconds");
  const auto nanoseconds = number_of(record, "preciseLocalTimeNanoseconds");
  if (seconds && nanoseconds) {
    point.utc = std::chrono::seconds(static_cast<std::int64_t>(*seconds)) +
                std::chrono::nanoseconds(static_cast<std::int64_t>(*nanoseconds)) - ahead;
  }
  point.altitude_msl = number_of(record, "altitudeMeanSeaLevel");
  point.altitude_wgs84 = number_of(record, "altitudeWGS84");
  point.speed = number_of(record, "speed2D");
  point.course = number_of(record, "courseOverGround");
  point.heading = number_of(record, "yawAngle");
  point.accuracy_horizontal = number_of(record, "accuracyHorizontal");
  point.accuracy_vertical = number_of(record, "accuracyVertical");
  if (const auto age = number_of(record, "ageOfDifferentialData"))
    point.correction_age = *age / 1000;
  return point;
}

std::string utc_text(std::chrono::nanoseconds utc) {
  using namespace std::chrono;
  const sys_time<milliseconds> time{floor<milliseconds>(utc)};
  const auto day = floor<days>(time);
  const year_month_day date{day};
  const hh_mm_ss clock{time - day};
  std::array<char, 48> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ",
                static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                static_cast<unsigned>(date.day()), static_cast<int>(clock.hours().count()),
                static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()),
                static_cast<int>(clock.subseconds().count()));
  return text.data();
}

std::string plain(double value) {
  std::array<char, 512> text{};  // the longest double has 309 digits before its point
  const auto end =
      std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed).ptr;
  return {text.data(), end};
}

std::string plain(double value, int digits) {
  std::array<char, 512> text{};
  std::snprintf(text.data(), text.size(), "%.*f", digits, value);
  return text.data();
}

double direction(double degrees, int digits) {
  const double turn = std::fmod(degrees, 360);
  const double scale = std::pow(10, digits);
  const double rounded = std::round((turn < 0 ? turn + 360 : turn) * scale) / scale;
  return rounded < 360 ? rounded + 0.0 : 0;  // no -0
}

}  // namespace posctl::track
