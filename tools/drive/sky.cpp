#include "tools/drive/sky.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "tools/drive/geometry.h"

namespace drive {
namespace {

using Matrix = std::array<std::array<double, 4>, 4>;

/// Gauss-Jordan; for matrices that need no exchange of rows, as those of normal equations.
Matrix inverse_of(Matrix matrix) {
  Matrix inverse{};
  for (std::size_t i = 0; i < 4; ++i)
    inverse[i][i] = 1;
  for (std::size_t i = 0; i < 4; ++i) {
    const double pivot = matrix[i][i];
    for (std::size_t j = 0; j < 4; ++j) {
      matrix[i][j] /= pivot;
      inverse[i][j] /= pivot;
    }
    for (std::size_t row = 0; row < 4; ++row) {
      if (row == i) continue;
      const double factor = matrix[row][i];
      for (std::size_t j = 0; j < 4; ++j) {
        matrix[row][j] -= factor * matrix[i][j];
        inverse[row][j] -= factor * inverse[i][j];
      }
    }
  }
  return inverse;
}

/// Adds what a satellite contributes to the normal equations.
void add_direction(Matrix& normal, const Satellite& satellite) {
  const double elevation = radians(satellite.elevation);
  const double azimuth = radians(satellite.azimuth);
  const std::array<double, 4> row{std::cos(elevation) * std::sin(azimuth),
                                  std::cos(elevation) * std::cos(azimuth), std::sin(elevation), 1};
  for (std::size_t i = 0; i < 4; ++i) {
    for (std::size_t j = 0; j < 4; ++j)
      normal[i][j] += row[i] * row[j];
  }
}

/// The two steps of the R2 sequence, which spreads points evenly over a square for any count.
constexpr double time_step = 0.7548776662466927;
constexpr double azimuth_step = 0.5698402909980532;

/// The way of each satellite over the sky, in seconds. With one for all, they stay spread.
constexpr double period = 6.5 * 3600;
/// Few satellites may lie so that their geometry gives no position.
constexpr double most_dilution = 99.9;

Satellite satellite_at(std::size_t index, double seconds, bool in_sight) {
  const auto number = static_cast<double>(index + 1);
  const double spread = wrapped(number * time_step, 1);
  const double wave = std::sin(std::numbers::pi * (seconds / period + spread));
  Satellite satellite;
  satellite.system = static_cast<Gnss_system>(index % 4);
  satellite.id = static_cast<std::uint16_t>(index / 4 + 1);
  satellite.elevation = 6 + 80 * wave * wave;
  satellite.azimuth = wrapped(
      360 * number * azimuth_step + (index % 2 == 0 ? 1 : -1) * seconds / period * 180, 360);
  if (in_sight && satellite.elevation >= 9) {
    satellite.signal = 24 + 24 * std::sin(radians(satellite.elevation)) +
                       std::sin(seconds / 7 + static_cast<double>(index));
    satellite.in_use = satellite.elevation >= 15;
  }
  return satellite;
}

}  // namespace

Sky Sky::at(double seconds, std::size_t count, bool in_sight) {
  Sky sky;
  sky.satellites.reserve(count);
  Matrix normal{};  // of the least-squares solution: east, north, up and clock
  for (std::size_t index = 0; index < count; ++index) {
    const Satellite satellite = satellite_at(index, seconds, in_sight);
    if (satellite.signal > 0) ++sky.tracked;
    if (satellite.in_use) {
      ++sky.in_use;
      add_direction(normal, satellite);
    }
    sky.satellites.push_back(satellite);
  }
  if (sky.in_use < 4) return sky;

  const Matrix inverse = inverse_of(normal);
  // Not more than the bound, also for no number.
  const auto dilution = [](double square) { return std::min(most_dilution, std::sqrt(square)); };
  const double horizontal = inverse[0][0] + inverse[1][1];
  sky.hdop = dilution(horizontal);
  sky.vdop = dilution(inverse[2][2]);
  sky.pdop = dilution(horizontal + inverse[2][2]);
  sky.gdop = dilution(horizontal + inverse[2][2] + inverse[3][3]);
  constexpr double range_error = 1.6;
  sky.horizontal_accuracy = sky.hdop * range_error;
  sky.vertical_accuracy = sky.vdop * range_error;
  return sky;
}

}  // namespace drive
