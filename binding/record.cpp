#include "binding/record.h"

namespace binding {

std::string_view to_text(const boost::optional<Value_type>& value_type) {
  if (!value_type) return "not set";
  switch (*value_type) {
    case Value_type::init:
      return "Init";
    case Value_type::error:
      return "Error";
    case Value_type::logical_value:
      return "LogicalValue";
    case Value_type::physical_value:
      return "PhysicalValue";
  }
  return "unknown";
}

}  // namespace binding
