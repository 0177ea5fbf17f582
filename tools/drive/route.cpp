#include "tools/drive/route.h"

#include <algorithm>
#include <array>
#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <span>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "tools/drive/geometry.h"

namespace drive {
namespace {

using boost::property_tree::ptree;

constexpr std::uintmax_t max_file = 64U << 20U;
constexpr double min_speed = 1;     // m/s: a slower vehicle stands
constexpr double max_speed = 100;   // m/s
constexpr double min_distance = 3;  // metres between two points
constexpr double min_dwell = 3;     // seconds

std::optional<double> to_number(std::string_view text, double low, double high) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())) != 0)
    text.remove_prefix(1);
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())) != 0)
    text.remove_suffix(1);
  if (text.starts_with('+')) text.remove_prefix(1);
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  if (!(value >= low && value <= high)) return std::nullopt;  // NaN too
  return value;
}

/// Element names may carry the prefix of a name space.
bool is_named(std::string_view element, std::string_view name) {
  const auto colon = element.rfind(':');
  return (colon == std::string_view::npos ? element : element.substr(colon + 1)) == name;
}

std::optional<double> speed_of(const ptree& element, int depth = 0) {
  constexpr int max_depth = 4;
  for (const auto& [name, child] : element) {
    if (is_named(name, "speed")) return to_number(child.data(), 0, max_speed);
    if (depth < max_depth && (is_named(name, "extensions") || depth > 0)) {
      if (const auto speed = speed_of(child, depth + 1)) return speed;
    }
  }
  return std::nullopt;
}

/// 2024-01-05T15:40:07[.25]Z or with an offset, in seconds; only differences count, so the zone of
/// all points may as well be local.
std::optional<double> time_of(std::string_view text) {
  std::array<int, 6> parts{};
  const char* at = text.data();
  const char* const end = text.data() + text.size();
  for (std::size_t index = 0; index < parts.size(); ++index) {
    if (index > 0) {
      if (at == end) return std::nullopt;
      ++at;
    }
    const auto [next, error] = std::from_chars(at, end, parts.at(index));
    if (error != std::errc{}) return std::nullopt;
    at = next;
  }
  using namespace std::chrono;
  const year_month_day date{year(parts[0]), month(static_cast<unsigned>(parts[1])),
                            day(static_cast<unsigned>(parts[2]))};
  if (!date.ok()) return std::nullopt;
  double fraction = 0;
  if (at != end && *at == '.') {
    const auto rest = std::string("0") + std::string(at, end);
    fraction = to_number(rest.substr(0, rest.find_first_of("Z+-")), 0, 1).value_or(0);
  }
  return static_cast<double>(sys_days(date).time_since_epoch().count()) * 86400 +
         parts[3] * 3600.0 + parts[4] * 60.0 + parts[5] + fraction;
}

bool is_tunnel(const ptree& element) {
  return std::any_of(element.begin(), element.end(), [](const auto& child) {
    if (!is_named(child.first, "type") && !is_named(child.first, "name")) return false;
    std::string text = child.second.data();
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text.find("tunnel") != std::string::npos;
  });
}

struct Reader {
  Route route;
  std::vector<std::optional<double>> times;
  std::optional<double> separation;

  void take(const ptree& element) {
    const auto attribute = [&](const char* name, double limit) {
      const auto text = element.get_optional<std::string>(std::string("<xmlattr>.") + name);
      const auto value = text ? to_number(*text, -limit, limit) : std::nullopt;
      if (!value) throw std::runtime_error(std::string("a point without a valid \"") + name + "\"");
      return *value;
    };
    Route_point point;
    point.latitude = attribute("lat", 90);
    point.longitude = attribute("lon", 180);
    std::optional<double> time;
    for (const auto& [name, child] : element) {
      if (is_named(name, "ele")) point.altitude = to_number(child.data(), -1000, 20'000);
      if (is_named(name, "time")) time = time_of(child.data());
      if (is_named(name, "geoidheight")) separation = to_number(child.data(), -200, 200);
    }
    point.speed = speed_of(element);
    point.tunnel = is_tunnel(element);
    route.points.push_back(point);
    times.push_back(time);
  }

  /// All points of the elements `levels` (one name for each level) below `element`.
  void collect(const ptree& element, std::span<const std::string_view> levels) {
    for (const auto& [name, child] : element) {
      if (!is_named(name, levels.front())) continue;
      if (levels.size() == 1) {
        take(child);
      } else {
        collect(child, levels.subspan(1));
      }
    }
  }
};

double distance(const Route_point& from, const Route_point& to) {
  const Place here{from.latitude, from.longitude};
  return here.to({to.latitude, to.longitude}, Radii::at(from.latitude)).length();
}

/// Speeds that the points do not carry, and stays, follow from the times.
void take_times(Reader& reader) {
  auto& points = reader.route.points;
  for (std::size_t index = 0; index + 1 < points.size(); ++index) {
    if (!reader.times[index] || !reader.times[index + 1]) continue;
    const double seconds = *reader.times[index + 1] - *reader.times[index];
    if (seconds <= 0) continue;
    const double speed = distance(points[index], points[index + 1]) / seconds;
    if (speed < min_speed) points[index].dwell = seconds;
    if (!points[index].speed && speed >= min_speed) {
      points[index].speed = std::min(speed, max_speed);
    }
  }
}

/// Whether a vehicle can drive around the corner `at`.
bool is_drivable(const Route_point& before, const Route_point& at, const Route_point& behind) {
  const auto earth = Radii::at(at.latitude);
  const Place corner{at.latitude, at.longitude};
  const auto in = Place{before.latitude, before.longitude}.to(corner, earth);
  const auto out = corner.to({behind.latitude, behind.longitude}, earth);
  const double turn = turn_between(in.direction(), out.direction());
  if (std::abs(turn) > max_corner) return out.length() > 5 * min_radius;
  const double needed = min_bend_length(turn) * Unit_bend::corner_distance(turn);
  return needed <= std::min(in.length(), out.length()) / 2;
}

}  // namespace

Route read_gpx(const std::string& path) {
  try {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error(std::generic_category().message(errno));
    if (!std::filesystem::is_regular_file(path)) throw std::runtime_error("it is no file");
    if (std::filesystem::file_size(path) > max_file) throw std::runtime_error("it is too large");
    ptree tree;
    boost::property_tree::read_xml(file, tree);
    static constexpr std::array<std::string_view, 4> track{"gpx", "trk", "trkseg", "trkpt"};
    static constexpr std::array<std::string_view, 3> route{"gpx", "rte", "rtept"};
    static constexpr std::array<std::string_view, 2> way_points{"gpx", "wpt"};
    Reader reader;
    for (const std::span<const std::string_view> kind :
         {std::span<const std::string_view>(track), std::span<const std::string_view>(route),
          std::span<const std::string_view>(way_points)}) {
      if (reader.route.points.empty()) reader.collect(tree, kind);
    }
    take_times(reader);
    reader.route.geoid_separation = reader.separation.value_or(0);
    return std::move(reader.route);
  } catch (const std::exception& error) {
    throw std::runtime_error("cannot read the route \"" + path + "\": " + error.what());
  }
}

std::vector<Route_point> drivable(const std::vector<Route_point>& points) {
  std::vector<Route_point> result;
  for (const auto& point : points) {
    if (!result.empty() && distance(result.back(), point) < min_distance) {
      // The vehicle stands, and its receiver's positions wander.
      result.back().dwell += point.dwell;
      result.back().tunnel = point.tunnel;
      if (point.speed) result.back().speed = point.speed;
      continue;
    }
    while (result.size() >= 2 && !is_drivable(result[result.size() - 2], result.back(), point))
      result.pop_back();
    result.push_back(point);
  }
  for (auto& point : result) {
    if (point.dwell < min_dwell) point.dwell = 0;
    if (point.speed && *point.speed < min_speed) point.speed.reset();
  }
  return result;
}

}  // namespace drive
