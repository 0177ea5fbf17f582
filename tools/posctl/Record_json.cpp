#include "tools/posctl/Record_json.h"

namespace posctl {

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
