#include "tools/posctl/serve/marks.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace posctl::serve {
namespace {

constexpr std::size_t largest_file = std::size_t{16} << 20;
constexpr std::size_t most_points = 100'000;

/// Collects marks within the bound.
class Marks {
 public:
  void begin(std::string name) { marks_.push_back({std::move(name), {}}); }
  void name(std::string name) { marks_.back().name = std::move(name); }
  void add(double longitude, double latitude) {
    if (!(std::abs(longitude) <= 180) || !(std::abs(latitude) <= 90))
      throw std::runtime_error("a point is outside -180 to 180 and -90 to 90 degrees");
    if (++points_ > most_points) throw std::runtime_error("it has more than 100000 points");
    marks_.back().points.push_back({longitude, latitude});
  }
  [[nodiscard]] std::vector<Mark> take() {
    std::erase_if(marks_, [](const Mark& mark) { return mark.points.empty(); });
    return std::move(marks_);
  }

 private:
  std::vector<Mark> marks_;
  std::size_t points_ = 0;
};

void add_position(const Json& position, Marks& marks) {
  if (!position.is_array() || position.size() < 2 || !position[0].is_number() ||
      !position[1].is_number())
    throw std::runtime_error("a GeoJSON position is not [longitude, latitude]");
  marks.add(position[0].get<double>(), position[1].get<double>());
}

/// `depth` is how many lists lie between the coordinates and one mark's positions.
void add_coordinates(const Json& coordinates, int depth, const std::string& name, Marks& marks) {
  if (!coordinates.is_array()) throw std::runtime_error("GeoJSON coordinates are no list");
  if (depth > 0) {
    for (const auto& part : coordinates)
      add_coordinates(part, depth - 1, name, marks);
    return;
  }
  marks.begin(name);
  for (const auto& position : coordinates)
    add_position(position, marks);
}

void add_geometry(const Json& geometry, const std::string& name, Marks& marks, int nesting) {
  if (!geometry.is_object()) return;  // null is allowed
  const std::string type = geometry.value("type", "");
  if (type == "GeometryCollection") {
    if (nesting > 8) throw std::runtime_error("GeoJSON collections are nested too deeply");
    for (const auto& one : geometry.value("geometries", Json::array()))
      add_geometry(one, name, marks, nesting + 1);
    return;
  }
  const Json coordinates = geometry.value("coordinates", Json());
  if (type == "Point") {
    marks.begin(name);
    add_position(coordinates, marks);
  } else if (type == "MultiPoint") {
    if (!coordinates.is_array()) throw std::runtime_error("GeoJSON coordinates are no list");
    for (const auto& position : coordinates) {
      marks.begin(name);
      add_position(position, marks);
    }
  } else if (type == "LineString") {
    add_coordinates(coordinates, 0, name, marks);
  } else if (type == "MultiLineString" || type == "Polygon") {
    add_coordinates(coordinates, 1, name, marks);
  } else if (type == "MultiPolygon") {
    add_coordinates(coordinates, 2, name, marks);
  } else {
    throw std::runtime_error("GeoJSON has no geometry \"" + type.substr(0, 64) + "\"");
  }
}

void add_feature(const Json& feature, Marks& marks) {
  if (!feature.is_object()) throw std::runtime_error("a GeoJSON feature is no object");
  std::string name;
  if (const auto properties = feature.find("properties");
      properties != feature.end() && properties->is_object()) {
    const auto found = properties->find("name");
    if (found != properties->end() && found->is_string()) name = found->get<std::string>();
  }
  const auto geometry = feature.find("geometry");
  if (geometry != feature.end()) add_geometry(*geometry, name, marks, 0);
}

std::vector<Mark> from_geojson(std::string_view text) {
  const Json json = Json::parse(text, nullptr, false);
  if (!json.is_object()) throw std::runtime_error("it is neither GPX nor GeoJSON");
  Marks marks;
  try {
    const std::string type = json.value("type", "");
    if (type == "FeatureCollection") {
      for (const auto& feature : json.value("features", Json::array()))
        add_feature(feature, marks);
    } else if (type == "Feature") {
      add_feature(json, marks);
    } else {
      add_geometry(json, "", marks, 0);
    }
  } catch (const Json::exception&) {
    throw std::runtime_error("a member of the GeoJSON has another type");
  }
  return marks.take();
}

/// The tags and texts of an XML document one after the other. It does not check their nesting.
class Xml_reader {
 public:
  explicit Xml_reader(std::string_view text) : rest_(text) {}

  /// Moves to the next tag. `text` is what stood before it.
  bool next() {
    text_.clear();
    for (;;) {
      const auto open = rest_.find('<');
      if (open == std::string_view::npos) return false;
      text_ += unescaped(rest_.substr(0, open));
      rest_.remove_prefix(open + 1);
      if (rest_.starts_with("!--")) {
        skip_to("-->");
      } else if (rest_.starts_with("![CDATA[")) {
        const auto end = std::min(rest_.find("]]>"), rest_.size());
        text_ += rest_.substr(8, end - 8);
        skip_to("]]>");
      } else if (rest_.starts_with('?') || rest_.starts_with('!')) {
        skip_to(">");
      } else {
        const auto end = std::min(rest_.find('>'), rest_.size());
        tag_ = rest_.substr(0, end);
        skip_to(">");
        return true;
      }
    }
  }

  [[nodiscard]] bool closes() const { return tag_.starts_with('/'); }
  [[nodiscard]] bool is_empty() const { return tag_.ends_with('/'); }
  /// Without the prefix of its name space.
  [[nodiscard]] std::string_view name() const {
    auto name = tag_.substr(closes() ? 1 : 0);
    name = name.substr(0, name.find_first_of(" \t\r\n/"));
    return name.substr(name.find(':') == std::string_view::npos ? 0 : name.find(':') + 1);
  }
  [[nodiscard]] const std::string& text() const { return text_; }
  /// The number of an attribute of the tag.
  [[nodiscard]] double number(std::string_view attribute) const {
    for (auto at = tag_.find(attribute); at != std::string_view::npos;
         at = tag_.find(attribute, at + 1)) {
      auto value = tag_.substr(at + attribute.size());
      value.remove_prefix(std::min(value.find_first_not_of(" \t\r\n"), value.size()));
      if (at == 0 || std::string_view(" \t\r\n").find(tag_[at - 1]) == std::string_view::npos ||
          !value.starts_with('='))
        continue;
      value.remove_prefix(1);
      value.remove_prefix(std::min(value.find_first_not_of(" \t\r\n\"'"), value.size()));
      value.remove_prefix(value.starts_with('+') ? 1 : 0);
      double number = 0;
      const auto error = std::from_chars(value.data(), value.data() + value.size(), number).ec;
      if (error == std::errc{}) return number;
    }
    throw std::runtime_error("a GPX point has no " + std::string(attribute));
  }

 private:
  void skip_to(std::string_view end) {
    const auto at = rest_.find(end);
    rest_.remove_prefix(at == std::string_view::npos ? rest_.size() : at + end.size());
  }
  static std::string unescaped(std::string_view text) {
    constexpr std::array<std::pair<std::string_view, char>, 5> known{
        {{"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}}};
    std::string result;
    while (!text.empty()) {
      const auto* const found =
          std::ranges::find_if(known, [&](const auto& one) { return text.starts_with(one.first); });
      if (found != known.end()) {
        result += found->second;
        text.remove_prefix(found->first.size());
      } else {
        result += text.front();
        text.remove_prefix(1);
      }
    }
    return result;
  }

  std::string_view rest_;
  std::string_view tag_;
  std::string text_;
};

/// Way points are marks, segments of tracks and routes are lines.
std::vector<Mark> from_gpx(std::string_view text) {
  Marks marks;
  Xml_reader xml(text);
  std::string line_name;
  bool line_begun = false;
  enum class Inside { nothing, way_point, line, point_of_line } inside = Inside::nothing;
  while (xml.next()) {
    const auto name = xml.name();
    const bool opens = !xml.closes();
    if (name == "wpt") {
      if (opens) {
        marks.begin("");
        marks.add(xml.number("lon"), xml.number("lat"));
      }
      inside = opens && !xml.is_empty() ? Inside::way_point : Inside::nothing;
    } else if (name == "trk" || name == "rte") {
      line_name.clear();
      line_begun = false;
      inside = opens ? Inside::line : Inside::nothing;
    } else if (name == "trkseg") {
      line_begun = false;
    } else if (name == "trkpt" || name == "rtept") {
      if (inside != Inside::line && inside != Inside::point_of_line)
        throw std::runtime_error("a GPX point is outside a track and a route");
      if (opens) {
        if (!line_begun) marks.begin(line_name);
        line_begun = true;
        marks.add(xml.number("lon"), xml.number("lat"));
      }
      inside = opens && !xml.is_empty() ? Inside::point_of_line : Inside::line;
    } else if (name == "name" && !opens) {
      if (inside == Inside::way_point) marks.name(xml.text());
      if (inside == Inside::line) line_name = xml.text();
    }
  }
  return marks.take();
}

}  // namespace

std::vector<Mark> marks_of(std::string_view text) {
  const auto begin =
      text.substr(std::min(text.find_first_not_of(" \t\r\n\xEF\xBB\xBF"), text.size()));
  return begin.starts_with('<') ? from_gpx(begin) : from_geojson(begin);
}

std::vector<Mark> read_marks(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text(largest_file + 1, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(file.gcount()));
  if (file.bad() || (text.empty() && !file.is_open()))
    throw std::runtime_error(path + ": cannot be read");
  if (text.size() > largest_file) throw std::runtime_error(path + ": more than 16 MiB");
  try {
    return marks_of(text);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(path + ": " + error.what());
  }
}

Json marks_json(const std::vector<Mark>& marks) {
  Json json{{"schema", 1}, {"marks", Json::array()}};
  for (const Mark& mark : marks) {
    Json points = Json::array();
    for (const auto& point : mark.points)
      points.push_back(Json::array({point.longitude, point.latitude}));
    json["marks"].push_back({{"name", mark.name}, {"points", std::move(points)}});
  }
  return json;
}

}  // namespace posctl::serve
