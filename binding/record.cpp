#include "binding/record.h"

namespace binding {

std::string_view to_text(const boost::optional<Value_type>& value_type) {
  if (!value_type) return "not set";
  const auto name = name_of(*value_type);
  return name.empty() ? "unknown" : name;
}

}  // namespace binding
