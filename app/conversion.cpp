#include "app/conversion.h"

#include <string_view>
#include <tuple>
#include <utility>

namespace {

using Gnss = lumo::services::gnss::datatypes::DT_positions_struct;
using Output = lumo::services::positioning::datatypes::DT_positions_struct;

template <class Record>
constexpr std::size_t index_of(std::string_view name) {
  std::size_t index = 0;
  std::size_t found = binding::member_count<Record>;
  binding::for_each_member<Record>([&](const auto& member) {
    if (member.name == name) found = index;
    ++index;
  });
  return found;
}

constexpr bool is_status(std::string_view name) {
  return name.starts_with("status");
}

constexpr std::size_t count_status_members() {
  std::size_t count = 0;
  binding::for_each_member<Output>([&](const auto& member) { count += is_status(member.name); });
  return count;
}
static_assert(count_status_members() == std::tuple_size_v<Output_defaults>);

/// Copies the entry at `Index` of the GNSS record if it is a measured quantity.
template <std::size_t Index>
void take_over(const Gnss& gnss, Output& output) {
  constexpr const auto& entry = std::get<Index>(binding::Description<Gnss>::entries);
  if constexpr (requires { entry.quality; }) {
    constexpr auto counterpart = index_of<Output>(entry.value.name);
    static_assert(counterpart < binding::member_count<Output>,
                  "every measured quantity is published under its own name");
    if (gnss.*entry.quality.pointer == binding::Value_type::physical_value) {
      output.*std::get<counterpart>(binding::members_of<Output>).pointer =
          gnss.*entry.value.pointer;
    }
  }
}

}  // namespace

Output to_positioning(const Gnss& gnss, const Output_defaults& defaults) {
  Output output;
  output.messageCounter = gnss.messageCounter;
  [&]<std::size_t... Index>(std::index_sequence<Index...>) {
    (take_over<Index>(gnss, output), ...);
  }
  (std::make_index_sequence<std::tuple_size_v<decltype(binding::Description<Gnss>::entries)>>{});
  auto value = defaults.begin();
  binding::for_each_member<Output>([&]<class Member>(const Member& member) {
    if constexpr (std::is_same_v<typename Member::value_type, std::uint32_t>) {
      if (is_status(member.name)) output.*member.pointer = *value++;
    }
  });
  return output;
}
