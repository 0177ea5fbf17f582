/// Landmarks from a file of the user.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/posctl/record_json.h"

namespace posctl::serve {

struct Mark {
  struct Point {
    double longitude = 0, latitude = 0;
  };
  std::string name;
  std::vector<Point> points;  ///< one, or a line
};

/// The landmarks of a GPX document or a GeoJSON text. Throws std::runtime_error for a text of
/// another kind, for a point outside the Earth's degrees, and for more than 100000 points.
[[nodiscard]] std::vector<Mark> marks_of(std::string_view text);

/// The landmarks of a file of at most 16 MiB. Throws std::runtime_error with its path.
[[nodiscard]] std::vector<Mark> read_marks(const std::string& path);

/// {"schema": 1, "marks": [{"name": …, "points": [[longitude, latitude], …]}, …]}.
[[nodiscard]] Json marks_json(const std::vector<Mark>& marks);

}  // namespace posctl::serve
