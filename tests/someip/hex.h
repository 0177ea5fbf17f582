/// Bytes of a message as a test writes them down: hexadecimal digits, spaces between as one likes.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace test {

inline std::vector<std::byte> hex(std::string_view digits) {
  std::vector<std::byte> bytes;
  std::string clean;
  for (const char c : digits) {
    if (c != ' ' && c != '\n') clean += c;
  }
  if (clean.size() % 2 != 0) throw std::invalid_argument("odd number of digits");
  for (std::size_t i = 0; i < clean.size(); i += 2) {
    bytes.push_back(static_cast<std::byte>(std::stoul(clean.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

}  // namespace test
