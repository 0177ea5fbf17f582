/// The kind of a position, which the records of the GNSS and of the Positioning service share.
#pragma once

#include "binding/record.h"

namespace lumo::services {

enum class Position_type : std::uint32_t { gnss = 1, gnss_dr = 2 };
constexpr auto enumerators_of(Position_type) {
  using enum Position_type;
  return std::to_array<binding::Enumerator<Position_type>>({{gnss, "GNSS"}, {gnss_dr, "GNSS-DR"}});
}

}  // namespace lumo::services
