/// Tracks in the formats of other programs.
#pragma once

#include <cstdint>
#include <string>

#include "tools/posctl/track/track_point.h"

namespace posctl::track {

enum class Format : std::uint8_t { gpx, kml, csv, geojson };

/// The text of a track, piece by piece. After begin() and after each next(), end() makes it
/// complete; the next piece then takes the place of that end.
class Track_text {
 public:
  explicit Track_text(Format format) : format_{format} {}

  [[nodiscard]] std::string begin() const;
  /// A point of the track. `record` has the members that the formats for tables keep.
  [[nodiscard]] std::string next(const Point& point, const Json& record);
  /// The next point begins a new piece of the track, as it also does five seconds after the last.
  void interrupt() { interrupted_ = true; }
  [[nodiscard]] std::string end() const;

 private:
  [[nodiscard]] std::string gpx(const Point& point, bool new_piece) const;
  [[nodiscard]] std::string kml(const Point& point, bool new_piece) const;
  [[nodiscard]] std::string geojson(const Point& point, const Json& record) const;

  const Format format_;
  bool empty_ = true;
  bool interrupted_ = false;
  std::optional<std::chrono::nanoseconds> last_;
};

}  // namespace posctl::track
