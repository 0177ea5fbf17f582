/// Lets GoogleTest show members of records.
#pragma once

#include <boost/optional/optional_io.hpp>
#include <ostream>

#include "binding/record.h"

namespace binding {
inline std::ostream& operator<<(std::ostream& stream, Value_type value) {
  return stream << to_text(value);
}
}  // namespace binding
