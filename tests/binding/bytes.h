/// Payloads in tests, written as they would be noted down from a capture.
#pragma once

#include <boost/algorithm/hex.hpp>
#include <initializer_list>
#include <span>
#include <string>
#include <vector>

#include "binding/payload.h"

namespace test {

// What the decoder reports.
inline constexpr auto beyond = "Read beyond the end of the data buffer";
inline constexpr auto bad_end = "Deserialization calculated invalid end position.";

/// "00 02 ff" as bytes; blanks are for the eye.
inline binding::Buffer hex(std::string text) {
  std::erase(text, ' ');
  const auto content = boost::algorithm::unhex(text);
  const auto bytes = std::as_bytes(std::span{content});
  return {bytes.begin(), bytes.end()};
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
