/// Payloads in tests, written as they would be noted down from a capture.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <string_view>
#include <vector>

#include "binding/payload.h"

namespace test {

/// "00 02 ff" as bytes; blanks are for the eye.
inline binding::Buffer hex(std::string_view text) {
  binding::Buffer bytes;
  int high = -1;
  for (const char c : text) {
    const auto digit = c >= '0' && c <= '9'   ? c - '0'
                       : c >= 'a' && c <= 'f' ? c - 'a' + 10
                       : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                              : -1;
    if (digit < 0) continue;
    if (high < 0) {
      high = digit;
    } else {
      bytes.push_back(static_cast<std::byte>(high * 16 + digit));
      high = -1;
    }
  }
  return bytes;
}

/// A vector payload (4-byte length) of records (4-byte length each).
inline binding::Buffer notification(std::initializer_list<binding::Buffer> records) {
  binding::Buffer body;
  for (const auto& record : records) {
    binding::write_length_field(4, record.size(), body, {});
    body.insert(body.end(), record.begin(), record.end());
  }
  binding::Buffer payload;
  binding::write_length_field(4, body.size(), payload, {});
  payload.insert(payload.end(), body.begin(), body.end());
  return payload;
}

}  // namespace test
