/// Records of the gateway as text, for comparing all that they say at once.
#pragma once

#include <regex>
#include <string>
#include <vector>

#include "tools/posctl/record_json.h"

namespace gateway {

/// A line for each record: "LAT=48.5+ speed2D=3.0! yawAngle!" are a physical value, a value with
/// Error, and Error without a value.
template <class Record>
std::vector<std::string> said(const std::vector<Record>& records) {
  std::vector<std::string> lines;
  for (const auto& record : records) {
    auto line = posctl::to_text(posctl::to_json(record));
    std::erase(line, '"');
    line = std::regex_replace(line, std::regex(R"( \w+_valueType=PhysicalValue)"), "+");
    line = std::regex_replace(line, std::regex(R"((\w+)(=\S+) \1_valueType=Error)"), "$1$2!");
    lines.push_back(std::regex_replace(line, std::regex("_valueType=Error"), "!"));
  }
  return lines;
}

}  // namespace gateway
