/// A record's description as rows of text, which docs/interfaces.md and `posctl describe` show.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "binding/codec.h"

namespace describe {

struct Row {
  std::string data_id;    ///< empty for members without tag
  std::string wire_type;  ///< empty for members without tag
  std::string name;
  std::string type;
  std::string unit;
  std::string meaning;
};

struct Table {
  std::string name;
  bool tagged = true;
  std::vector<Row> rows;
};

namespace detail {

template <class T>
struct Type_name;
template <class T>
requires std::is_integral_v<T>
struct Type_name<T> {
  static std::string text() {
    if constexpr (std::is_same_v<T, bool>) {
      return "boolean";
    } else {
      return (std::is_signed_v<T> ? "sint" : "uint") + std::to_string(8 * sizeof(T));
    }
  }
};
template <class T>
requires std::is_floating_point_v<T>
struct Type_name<T> {
  static std::string text() { return "float" + std::to_string(8 * sizeof(T)); }
};
template <class T>
requires std::is_enum_v<T>
struct Type_name<T> {
  static std::string text() {
    return Type_name<std::underlying_type_t<T>>::text() + " enumeration";
  }
};
template <>
struct Type_name<std::string> {
  static std::string text() { return "string"; }
};
template <class T>
struct Type_name<std::vector<T>> {
  static std::string text() { return "vector of " + Type_name<T>::text(); }
};
template <class T, std::size_t Count>
struct Type_name<std::array<T, Count>> {
  static std::string text() { return std::to_string(Count) + " x " + Type_name<T>::text(); }
};
template <class Key, class Value>
struct Type_name<std::map<Key, Value>> {
  static std::string text() {
    return "map of " + Type_name<Key>::text() + " to " + Type_name<Value>::text();
  }
};
template <binding::Described T>
struct Type_name<T> {
  static std::string text() { return std::string{binding::Description<T>::name}; }
};

}  // namespace detail

template <class T>
[[nodiscard]] std::string type_name() {
  return detail::Type_name<T>::text();
}

/// "1 = GNSS, 2 = GNSS-DR"; empty for a type without named values.
template <class T>
[[nodiscard]] std::string values_of() {
  std::string text;
  if constexpr (binding::Named_enumeration<T>) {
    for (const auto& [value, name] : binding::enumerators<T>) {
      if (!text.empty()) text += ", ";
      text += std::to_string(static_cast<std::underlying_type_t<T>>(value)) + " = ";
      text += name;
    }
  }
  return text;
}

template <binding::Described Record>
[[nodiscard]] Table table_of() {
  Table table{.name = std::string{binding::Description<Record>::name},
              .tagged = binding::Tlv_record<Record>,
              .rows = {}};
  std::string quantity;
  binding::for_each_member<Record>([&]<class M>(const M& m) {
    using Value = typename M::value_type;
    Row row;
    row.name = m.name;
    row.type = type_name<Value>();
    row.unit = m.unit;
    row.meaning = m.meaning;
    const auto values = values_of<Value>();
    if (!row.meaning.empty() && !values.empty()) row.meaning += ": ";
    row.meaning += values;
    if constexpr (binding::Tlv_record<Record>) {
      row.data_id = std::to_string(m.id);
      row.wire_type = std::to_string(static_cast<unsigned>(binding::Codec<Value>::wire_type));
      if constexpr (std::is_same_v<Value, binding::Value_type>) {
        row.name = "valueType of " + quantity;
      } else {
        quantity = m.name;
      }
    }
    table.rows.push_back(std::move(row));
  });
  return table;
}

/// As a Markdown section.
[[nodiscard]] std::string markdown(const Table& table);

}  // namespace describe
