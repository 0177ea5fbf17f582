#include "binding/record.h"

namespace binding {

std::string_view to_text(const boost::optional<Value_type>& value_type) {
  if (!value_type) return "not set";
  // Read for every logged quantity: the place in a list without gaps needs no search.
  constexpr const auto& all = enumerators<Value_type>;
  constexpr auto first = static_cast<std::uint32_t>(all.front().value);
  static_assert(static_cast<std::uint32_t>(all.back().value) - first == all.size() - 1);
  const auto place = static_cast<std::uint32_t>(*value_type) - first;
  return place < all.size() ? all[place].name : "unknown";
}

}  // namespace binding
