#include "tools/posctl/track/sentences.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <numbers>

namespace posctl::track {

namespace {

constexpr double knots_per_mps = 3600.0 / 1852.0;
constexpr double kmh_per_mps = 3.6;

/// "$GNRMC,…*hh", of its fields without the talker.
std::string sentence(std::string_view type, std::initializer_list<std::string> fields) {
  std::string body = "GN";
  body += type;
  for (const auto& field : fields)
    body += ',' + field;
  unsigned sum = 0;
  for (const char one : body)
    sum ^= static_cast<unsigned char>(one);
  std::array<char, 8> end{};
  std::snprintf(end.data(), end.size(), "*%02X\r\n", sum);
  return '$' + body + end.data();
}

std::string digits(const std::optional<double>& value, int count) {
  return value ? plain(*value, count) : "";
}

struct Time_fields {
  std::string time, date;
};
/// "031500.100" and "261126".
Time_fields time_fields(const std::optional<std::chrono::nanoseconds>& utc) {
  if (!utc) return {};
  const std::string text = utc_text(*utc);  // 2026-11-26T03:15:00.100Z
  return {text.substr(11, 2) + text.substr(14, 2) + text.substr(17, 6),
          text.substr(8, 2) + text.substr(5, 2) + text.substr(2, 2)};
}

/// "4656.123456" and "N": degrees and minutes, which keep 1e-8 degrees.
struct Angle_fields {
  std::string angle, side;
};
Angle_fields angle_fields(double degrees, int width, const char* positive, const char* negative) {
  constexpr std::int64_t parts_per_minute = 1'000'000;
  // Rounded before it is split: 59.99999999 minutes are a degree.
  const std::int64_t parts =
      std::llround(std::abs(degrees) * 60 * static_cast<double>(parts_per_minute));
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%0*lld%02lld.%06lld", width,
                static_cast<long long>(parts / (60 * parts_per_minute)),
                static_cast<long long>(parts / parts_per_minute % 60),
                static_cast<long long>(parts % parts_per_minute));
  return {text.data(), std::signbit(degrees) && parts != 0 ? negative : positive};
}

}  // namespace

std::string sentences_of(const Point& point) {
  const auto [time, date] = time_fields(point.utc);
  const auto [latitude, north] = angle_fields(point.latitude, 2, "N", "S");
  const auto [longitude, east] = angle_fields(point.longitude, 3, "E", "W");
  const bool corrected = point.correction_age.has_value();
  const std::string mode = corrected ? "D" : "A";
  const auto scaled = [](const std::optional<double>& value, double factor) {
    return value ? std::optional(*value * factor) : std::nullopt;
  };
  const std::string course = point.course ? plain(direction(*point.course, 2), 2) : "";
  const auto knots = scaled(point.speed, knots_per_mps);
  std::optional<double> separation;
  if (point.altitude_msl && point.altitude_wgs84)
    separation = *point.altitude_wgs84 - *point.altitude_msl;
  // Of a horizontal accuracy both directions have the same share.
  const std::string each = digits(scaled(point.accuracy_horizontal, 1 / std::numbers::sqrt2), 3);

  // A sentence has at most 82 characters, so the last fields of GGA have few digits.
  // Programs take a GGA without a number for "no fix": the fewest that this fix takes.
  const bool has_altitude = point.altitude_msl.has_value();
  const std::string satellites = has_altitude ? "04" : "03";

  return sentence("RMC", {time, "A", latitude, north, longitude, east, digits(knots, 3), course,
                          date, "", "", mode}) +
         sentence("GGA", {time, latitude, north, longitude, east, corrected ? "2" : "1", satellites,
                          "", digits(point.altitude_msl, 3), "M", digits(separation, 1), "M",
                          digits(point.correction_age, point.correction_age < 10 ? 1 : 0), ""}) +
         sentence("VTG", {course, "T", "", "M", digits(knots, 3), "N",
                          digits(scaled(point.speed, kmh_per_mps), 3), "K", mode}) +
         sentence("GSA", {"A", has_altitude ? "3" : "2", "", "", "", "", "", "", "", "", "", "", "",
                          "", "", "", ""}) +
         sentence("GST",
                  {time, "", each, each, "", each, each, digits(point.accuracy_vertical, 3)});
}

std::string sentences_without_position(std::chrono::nanoseconds utc) {
  const auto [time, date] = time_fields(utc);
  return sentence("RMC", {time, "V", "", "", "", "", "", "", date, "", "", "N"}) +
         sentence("GGA", {time, "", "", "", "", "0", "", "", "", "M", "", "M", "", ""}) +
         sentence("GSA", {"A", "1", "", "", "", "", "", "", "", "", "", "", "", "", "", "", ""});
}

}  // namespace posctl::track
