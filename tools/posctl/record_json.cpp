#include "tools/posctl/record_json.h"

#include <algorithm>

namespace posctl {

bool is_stamp_only(const Json& record) {
  return std::ranges::all_of(record.items(), [](const auto& member) {
    return member.key() == "preciseLocalTimeSeconds" ||
           member.key() == "preciseLocalTimeNanoseconds";
  });
}

std::string to_text(const Json& record) {
  if (!record.is_object()) return record.dump();
  if (record.empty()) return "(nothing set)";
  std::string text;
  for (const auto& [name, value] : record.items()) {
    if (!text.empty()) text += ' ';
    text += name + '=' + value.dump();
  }
  return text;
}

}  // namespace posctl
