/// Identifiers as manifests and texts show them.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>

namespace someip {

/// "0x83D1" with 4 digits, "0x0083D1" with 6.
[[nodiscard]] inline std::string hexadecimal(std::uint32_t id, int digits = 4) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "0x%0*X", digits, id);
  return text.data();
}

}  // namespace someip
