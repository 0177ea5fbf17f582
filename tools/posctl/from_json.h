/// Arguments of a method from JSON, by the descriptions of the records.
#pragma once

#include <limits>
#include <map>
#include <string>
#include <type_traits>
#include <utility>

#include "binding/record.h"
#include "tools/command.h"
#include "tools/posctl/record_json.h"

namespace posctl {

namespace detail {

[[noreturn]] inline void refuse(std::string_view expected, const Json& json) {
  throw tools::Usage_error("the argument: expected " + std::string(expected) + ", found " +
                           json.dump().substr(0, 80));
}

template <class Number>
Number number_from(const Json& json) {
  if (!json.is_number_integer()) refuse("a whole number", json);
  using Limits = std::numeric_limits<Number>;
  const bool fits = json.is_number_unsigned() ? std::in_range<Number>(json.get<std::uint64_t>())
                                              : std::in_range<Number>(json.get<std::int64_t>());
  if (!fits) {
    refuse(
        "a number from " + std::to_string(Limits::min()) + " to " + std::to_string(Limits::max()),
        json);
  }
  return json.get<Number>();
}

}  // namespace detail

/// Enumerations are names or numbers. Throws tools::Usage_error for JSON that is not a T.
template <class T>
T from_json(const Json& json) {
  if constexpr (binding::Plain_record<T>) {
    T record;
    binding::for_each_member<T>([&]<class M>(const M& member) {
      const std::string name(member.name);
      if (!json.is_object() || !json.contains(name)) {
        detail::refuse("an object with the member \"" + name + "\"", json);
      }
      record.*member.pointer = from_json<typename M::value_type>(json[name]);
    });
    return record;
  } else if constexpr (std::is_enum_v<T>) {
    for (const auto& [value, name] : binding::enumerators<T>) {
      if (json == Json(name)) return value;
      if (json == Json(static_cast<std::underlying_type_t<T>>(value))) return value;
    }
    std::string names;
    for (const auto& known : binding::enumerators<T>)
      names.append(names.empty() ? "" : ", ").append(known.name);
    detail::refuse("one of " + names, json);
  } else if constexpr (std::is_same_v<T, std::string>) {
    if (!json.is_string()) detail::refuse("a text", json);
    return json.get<std::string>();
  } else if constexpr (std::is_same_v<T, std::map<std::string, std::string>>) {
    if (!json.is_object()) detail::refuse("an object of texts", json);
    T map;
    for (const auto& [key, value] : json.items())
      map[key] = from_json<std::string>(value);
    return map;
  } else {
    return detail::number_from<T>(json);
  }
}

}  // namespace posctl
