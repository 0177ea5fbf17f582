/// Network byte order for the headers of SOME/IP. The caller checks the size first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace someip {

using Bytes = std::span<const std::byte>;

inline std::uint8_t load8(const std::byte* at) {
  return std::to_integer<std::uint8_t>(*at);
}
inline std::uint16_t load16(const std::byte* at) {
  return static_cast<std::uint16_t>((load8(at) << 8) | load8(at + 1));
}
inline std::uint32_t load24(const std::byte* at) {
  return (static_cast<std::uint32_t>(load8(at)) << 16) | load16(at + 1);
}
inline std::uint32_t load32(const std::byte* at) {
  return (static_cast<std::uint32_t>(load16(at)) << 16) | load16(at + 2);
}

inline void store8(std::byte* at, std::uint8_t value) {
  *at = std::byte{value};
}
inline void store16(std::byte* at, std::uint16_t value) {
  store8(at, static_cast<std::uint8_t>(value >> 8));
  store8(at + 1, static_cast<std::uint8_t>(value));
}
inline void store24(std::byte* at, std::uint32_t value) {
  store8(at, static_cast<std::uint8_t>(value >> 16));
  store16(at + 1, static_cast<std::uint16_t>(value));
}
inline void store32(std::byte* at, std::uint32_t value) {
  store16(at, static_cast<std::uint16_t>(value >> 16));
  store16(at + 2, static_cast<std::uint16_t>(value));
}

}  // namespace someip
