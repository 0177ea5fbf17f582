/// The curves of the last hour, in bounded memory.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace posctl::serve {

struct Curve {
  std::string_view name;
  int digits;  ///< behind the point
};

/// Marks a value that a sample does not have.
inline constexpr double no_value = std::numeric_limits<double>::quiet_NaN();

/// Samples of several curves. It keeps the youngest samples one by one. It joins older ones in rows
/// of a second, then of five seconds. A row has the least and the greatest value of each curve.
class Series {
 public:
  explicit Series(std::span<const Curve> curves) : curves_(curves) {}

  /// `time` in milliseconds, ascending; a value for each curve.
  void add(double time, std::span<const double> values);
  /// Appends "[{"bucketMs": …, "t": […], …}, …]", the oldest tier first.
  void write_tiers(std::string& json) const;

 private:
  struct Row {
    double begin, end;
    std::uint64_t count;
    std::vector<double> last, least, greatest;
  };
  struct Tier {
    double bucket;     ///< milliseconds
    std::size_t most;  ///< rows
    std::deque<Row> rows;
  };
  void write(std::string& json, const Tier& tier, double before) const;

  const std::span<const Curve> curves_;
  std::array<Tier, 3> tiers_{Tier{5000, 720, {}}, Tier{1000, 600, {}}, Tier{50, 1200, {}}};
};

}  // namespace posctl::serve
