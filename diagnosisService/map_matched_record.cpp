#include "diagnosisService/map_matched_record.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace diagnosisService {

namespace {

/// The lowest bytes of `value`, most significant first. A value that does not fit becomes the
/// nearest value that does.
template <std::size_t Size>
std::array<std::uint8_t, Size> big_endian(double value, double lowest, double highest) {
  auto rest = static_cast<std::uint64_t>(std::llround(std::clamp(value, lowest, highest)));
  std::array<std::uint8_t, Size> bytes;
  for (auto byte = bytes.rbegin(); byte != bytes.rend(); ++byte, rest >>= 8U) {
    *byte = static_cast<std::uint8_t>(rest & 0xFFU);
  }
  return bytes;
}
template <std::size_t Size>
std::array<std::uint8_t, Size> signed_big_endian(double value) {
  const auto limit = std::ldexp(1.0, Size * 8 - 1);
  return big_endian<Size>(value, -limit, limit - 1);
}
template <std::size_t Size>
std::array<std::uint8_t, Size> unsigned_big_endian(double value) {
  return big_endian<Size>(value, 0, std::ldexp(1.0, Size * 8) - 1);
}

template <class Value>
bool is_usable(const boost::optional<Value>& value) {
  return value && std::isfinite(*value);
}

/// Four bits; 15 stands for absent and for a value that needs more bits.
unsigned nibble(const boost::optional<std::uint32_t>& value) {
  constexpr unsigned none = 15;
  return value && *value < none ? *value : none;
}

}  // namespace

Map_matched_record map_matched_record(const Map_matched_position& position) {
  constexpr std::uint32_t seconds_per_day = 86'400;
  Map_matched_record record;
  unsigned valid = 0;
  auto& out = record.position;
  if (is_usable(position.latitude)) {
    out.latitude = signed_big_endian<5>(*position.latitude * 1e9);
    valid |= 1U;
  }
  if (is_usable(position.longitude)) {
    out.longitude = signed_big_endian<5>(*position.longitude * 1e9);
    valid |= 2U;
  }
  if (is_usable(position.altitude)) {
    out.altitude = signed_big_endian<3>(*position.altitude * 100.0);
    valid |= 4U;
  }
  if (const auto seconds = position.seconds) {
    const auto hundredths = std::min(position.nanoseconds.value_or(0) / 10'000'000U, 99U);
    out.timeOfDay = unsigned_big_endian<3>((*seconds % seconds_per_day) * 100 + hundredths);
    const std::uint32_t day = *seconds / seconds_per_day;
    record.day = unsigned_big_endian<2>(day);
    valid |= 8U;
  }
  out.state.validity = static_cast<std::uint8_t>(nibble(position.status_map) << 4U | valid);
  out.state.matching = static_cast<std::uint8_t>(nibble(position.position_source) << 4U |
                                                 nibble(position.status_map_matching));
  if (is_usable(position.heading)) {
    // Rounded before it wraps: 359.996 degrees are 0.00, not 360.00.
    const double heading = std::fmod(std::round(*position.heading * 100.0), 36'000.0);
    record.heading = unsigned_big_endian<2>(heading < 0 ? heading + 36'000.0 : heading);
  }
  if (is_usable(position.speed)) record.speed = unsigned_big_endian<2>(*position.speed * 100.0);
  record.message_counter = static_cast<std::uint8_t>(position.message_counter.value_or(0) & 0xFFU);
  return record;
}

}  // namespace diagnosisService
