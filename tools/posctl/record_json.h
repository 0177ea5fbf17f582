/// Records as JSON and as text, from their descriptions: what posctl prints.
#pragma once

#include <array>
#include <charconv>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <type_traits>
#include <vector>

#include "binding/record.h"

namespace posctl {

using Json = nlohmann::ordered_json;

template <class T>
Json to_json(const T& value);

namespace detail {

/// The double that prints as shortly as `value` does in its own precision: 278.161, not
/// 278.16101074.
inline double widen(float value) {
  std::array<char, 32> text{};
  const auto end = std::to_chars(text.data(), text.data() + text.size(), value).ptr;
  double result = 0;
  std::from_chars(text.data(), end, result);
  return result;
}

template <binding::Described Record>
Json record_to_json(const Record& record) {
  Json json = Json::object();
  std::string quantity;
  binding::for_each_member<Record>([&]<class M>(const M& member) {
    using Value = typename M::value_type;
    std::string name{member.name};
    if constexpr (std::is_same_v<Value, binding::Value_type>) {
      name = quantity + "_valueType";
    } else {
      quantity = name;
    }
    const auto& value = record.*member.pointer;
    if constexpr (binding::Tlv_record<Record>) {
      if (value) json[name] = to_json(*value);
    } else {
      json[name] = to_json(value);
    }
  });
  return json;
}

}  // namespace detail

/// Absent members are left out. An enumeration is its name, or a number that has none.
template <class T>
Json to_json(const T& value) {
  if constexpr (binding::Described<T>) {
    return detail::record_to_json(value);
  } else if constexpr (std::is_enum_v<T>) {
    if constexpr (binding::Named_enumeration<T>) {
      if (const auto name = binding::name_of(value); !name.empty()) return name;
    }
    return static_cast<std::underlying_type_t<T>>(value);
  } else if constexpr (std::is_same_v<T, float>) {
    return detail::widen(value);
  } else if constexpr (requires { typename T::mapped_type; }) {
    Json json = Json::object();
    for (const auto& [key, mapped] : value) {
      json[key] = to_json(mapped);
    }
    return json;
  } else if constexpr (!std::is_same_v<T, std::string> && requires { value.begin(); }) {
    Json json = Json::array();
    for (const auto& element : value) {
      json.push_back(to_json(element));
    }
    return json;
  } else {
    return value;
  }
}

/// Whether a record carries nothing but its time stamp, as the initial value of the positions does.
[[nodiscard]] bool is_stamp_only(const Json& record);

/// "name=value name=value …", nested values as JSON; "(nothing set)" without members.
[[nodiscard]] std::string to_text(const Json& record);

}  // namespace posctl
