/// Lets GoogleTest show members of records.
#pragma once

#include <boost/optional/optional_io.hpp>
#include <ostream>
#include <type_traits>

#include "binding/record.h"

namespace binding {
template <Named_enumeration E>
std::ostream& operator<<(std::ostream& stream, E value) {
  return stream << static_cast<std::underlying_type_t<E>>(value) << ' ' << name_of(value);
}
}  // namespace binding
namespace lumo::services {
using binding::operator<<;
namespace gnss::datatypes {
using binding::operator<<;
}
namespace positioning::datatypes {
using binding::operator<<;
}
namespace time::datatypes {
using binding::operator<<;
}
}  // namespace lumo::services
