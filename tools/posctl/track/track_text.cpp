#include "tools/posctl/track/track_text.h"

#include "binding/record.h"
#include "posService/positioning_records.h"

namespace posctl::track {

namespace {

using Record = lumo::services::positioning::datatypes::DT_positions_struct;

constexpr std::chrono::seconds longest_gap{5};

constexpr const char* gpx_begin =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<gpx version=\"1.1\" creator=\"posctl\" xmlns=\"http://www.topografix.com/GPX/1/1\" "
    "xmlns:tp=\"http://www.garmin.com/xmlschemas/TrackPointExtension/v2\">\n"
    "<trk><name>Positions</name><trkseg>\n";
constexpr const char* gpx_end = "</trkseg></trk>\n</gpx>\n";

constexpr const char* kml_begin =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<kml xmlns=\"http://www.opengis.net/kml/2.2\">\n<Document><name>Positions</name>\n";
constexpr const char* kml_piece_end = "</coordinates></LineString></Placemark>\n";
constexpr const char* kml_end = "</Document>\n</kml>\n";

/// `<name>value</name>`, if there is a value.
std::string element(const std::string& name, const std::optional<double>& value) {
  return value ? "<" + name + ">" + plain(*value) + "</" + name + ">" : "";
}

/// With the digits that a float has.
std::optional<double> direction_of(const std::optional<double>& degrees) {
  return degrees ? std::optional(direction(*degrees, 5)) : std::nullopt;
}

std::string csv_head() {
  std::string line = "time";
  binding::for_each_member<Record>(
      [&](const auto& member) { line.append(",").append(member.name); });
  return line + "\n";
}

std::string csv_row(const Point& point, const Json& record) {
  std::string line = point.utc ? utc_text(*point.utc) : "";
  binding::for_each_member<Record>([&](const auto& member) {
    const std::string name(member.name);
    line += ',';
    if (const auto value = record.find(name); value != record.end() && value->is_string()) {
      line += value->template get<std::string>();
    } else if (number_of(record, name)) {
      line += value->dump();
    }
  });
  return line + "\n";
}

}  // namespace

std::string Track_text::begin() const {
  switch (format_) {
    case Format::gpx:
      return gpx_begin;
    case Format::kml:
      return kml_begin;
    case Format::csv:
      return csv_head();
    case Format::geojson:
      break;
  }
  return "{\"type\":\"FeatureCollection\",\"features\":[";
}

std::string Track_text::next(const Point& point, const Json& record) {
  const bool gap = point.utc && last_ && std::chrono::abs(*point.utc - *last_) > longest_gap;
  const bool new_piece = empty_ || interrupted_ || gap;
  std::string text;
  switch (format_) {
    case Format::gpx:
      text = gpx(point, new_piece);
      break;
    case Format::kml:
      text = kml(point, new_piece);
      break;
    case Format::csv:
      text = csv_row(point, record);
      break;
    case Format::geojson:
      text = geojson(point, record);
      break;
  }
  empty_ = interrupted_ = false;
  last_ = point.utc;
  return text;
}

std::string Track_text::end() const {
  switch (format_) {
    case Format::gpx:
      return gpx_end;
    case Format::kml:
      return (empty_ ? "" : kml_piece_end) + std::string(kml_end);
    case Format::csv:
      return "";
    case Format::geojson:
      break;
  }
  return "\n]}\n";
}

std::string Track_text::gpx(const Point& point, bool new_piece) const {
  std::string text = new_piece && !empty_ ? "</trkseg><trkseg>\n" : "";
  // 180 degrees east is 180 degrees west there.
  const double longitude = point.longitude == 180 ? -180 : point.longitude;
  text += "<trkpt lat=\"" + plain(point.latitude) + "\" lon=\"" + plain(longitude) + "\">" +
          element("ele", point.altitude_msl);
  if (point.utc) text += "<time>" + utc_text(*point.utc) + "</time>";
  if (point.altitude_msl && point.altitude_wgs84)
    text += element("geoidheight", *point.altitude_wgs84 - *point.altitude_msl);
  text += element("ageofdgpsdata", point.correction_age);
  if (point.speed || point.course || point.heading) {
    text += "<extensions><tp:TrackPointExtension>" + element("tp:speed", point.speed) +
            element("tp:course", direction_of(point.course)) +
            element("tp:bearing", direction_of(point.heading)) +
            "</tp:TrackPointExtension></extensions>";
  }
  return text + "</trkpt>\n";
}

std::string Track_text::kml(const Point& point, bool new_piece) const {
  std::string text;
  if (new_piece) {
    if (!empty_) text += kml_piece_end;
    text += "<Placemark><name>" + (point.utc ? utc_text(*point.utc) : "Track") + "</name>";
    if (point.utc) text += "<TimeSpan><begin>" + utc_text(*point.utc) + "</begin></TimeSpan>";
    text += "<LineString><tessellate>1</tessellate><coordinates>\n";
  }
  std::string place = plain(point.longitude) + "," + plain(point.latitude);
  if (point.altitude_msl) place += "," + plain(*point.altitude_msl);
  place += "\n";
  // A line has two points at least, so the first one of a piece stands twice.
  return text + (new_piece ? place + place : place);
}

std::string Track_text::geojson(const Point& point, const Json& record) const {
  Json place = Json::array({point.longitude, point.latitude});
  if (point.altitude_wgs84) place.push_back(*point.altitude_wgs84);
  Json properties = Json::object();
  if (point.utc) properties["time"] = utc_text(*point.utc);
  for (const auto& [name, value] : record.items()) {
    if (name != "LAT" && name != "LON") properties[name] = value;
  }
  const Json feature{{"type", "Feature"},
                     {"geometry", {{"type", "Point"}, {"coordinates", place}}},
                     {"properties", properties}};
  return (empty_ ? "\n" : ",\n") + feature.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace posctl::track
