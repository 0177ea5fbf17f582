/// The description of a record: one constexpr list of its members beside the plain struct. The tag
/// list, the codec, the trace payload, the tables in docs/ and the output of the tools are all
/// loops over it.
///
///   template <>
///   struct binding::Description<Sample> {
///     static constexpr std::string_view name = "Sample";
///     static constexpr auto entries = std::tuple{
///         member(0, "counter", &Sample::counter, "", "counts the samples"),
///         quantity(1, "speed", &Sample::speed, &Sample::speed_valueType, "m/s", "over ground")};
///   };
#pragma once

#include <array>
#include <boost/optional.hpp>
#include <cstdint>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace binding {

/// A value of an enumeration and the name that docs, tools and logs print for it.
template <class Enumeration>
struct Enumerator {
  Enumeration value;
  std::string_view name;
};

/// An enumeration with names. Beside it stands a function that lists its values in ascending order:
///
///   constexpr auto enumerators_of(Mode) {
///     return std::to_array<binding::Enumerator<Mode>>({{Mode::off, "off"}, …});
///   }
template <class T>
concept Named_enumeration = std::is_enum_v<T> && requires(T value) {
  enumerators_of(value);
};

template <Named_enumeration E>
inline constexpr auto enumerators = enumerators_of(E{});

/// Empty for a value that the enumeration does not have.
template <Named_enumeration E>
[[nodiscard]] constexpr std::string_view name_of(E value) {
  for (const auto& known : enumerators<E>) {
    if (known.value == value) return known.name;
  }
  return {};
}

/// Quality of a measured quantity, sent as a separate member behind it.
enum class Value_type : std::uint32_t {
  init = 1,
  error = 2,
  logical_value = 3,
  physical_value = 4
};
constexpr auto enumerators_of(Value_type) {
  using enum Value_type;
  return std::to_array<Enumerator<Value_type>>({{init, "Init"},
                                                {error, "Error"},
                                                {logical_value, "LogicalValue"},
                                                {physical_value, "PhysicalValue"}});
}

/// "Init", "Error", "LogicalValue", "PhysicalValue", "unknown", or "not set" for an absent one.
[[nodiscard]] std::string_view to_text(const boost::optional<Value_type>& value_type);

/// A member of a TLV record: optional, sent under its data ID.
template <class Record, class Value>
struct Member {
  using value_type = Value;

  std::uint16_t id;
  std::string_view name;
  boost::optional<Value> Record::*pointer;
  std::string_view unit;
  std::string_view meaning;
};

/// A measured quantity and its quality. The two have consecutive data IDs.
template <class Record, class Value>
struct Quantity {
  Member<Record, Value> value;
  Member<Record, Value_type> quality;
};

template <class Record, class Value>
[[nodiscard]] constexpr Member<Record, Value> member(std::uint16_t id,
                                                     std::string_view name,
                                                     boost::optional<Value> Record::*pointer,
                                                     std::string_view unit = {},
                                                     std::string_view meaning = {}) {
  return {id, name, pointer, unit, meaning};
}

template <class Record, class Value>
[[nodiscard]] constexpr Quantity<Record, Value> quantity(
    std::uint16_t id,
    std::string_view name,
    boost::optional<Value> Record::*value,
    boost::optional<Value_type> Record::*quality,
    std::string_view unit = {},
    std::string_view meaning = {}) {
  return {{id, name, value, unit, meaning},
          {static_cast<std::uint16_t>(id + 1), "valueType", quality, {}, {}}};
}

/// A member of a record without tags: always sent, in declaration order.
template <class Record, class Value>
struct Plain_member {
  using value_type = Value;

  std::string_view name;
  Value Record::*pointer;
  std::string_view unit;
  std::string_view meaning;
};

template <class Record, class Value>
[[nodiscard]] constexpr Plain_member<Record, Value> plain(std::string_view name,
                                                          Value Record::*pointer,
                                                          std::string_view unit = {},
                                                          std::string_view meaning = {}) {
  return {name, pointer, unit, meaning};
}

/// Specialised for each record: `name` and `entries`, a tuple of Member and Quantity or of
/// Plain_member.
template <class Record>
struct Description;

template <class T>
concept Described = requires {
  Description<T>::name;
  Description<T>::entries;
};

namespace detail {

template <class Record, class Value>
constexpr auto flatten(const Member<Record, Value>& entry) {
  return std::tuple{entry};
}
template <class Record, class Value>
constexpr auto flatten(const Quantity<Record, Value>& entry) {
  return std::tuple{entry.value, entry.quality};
}
template <class Record, class Value>
constexpr auto flatten(const Plain_member<Record, Value>& entry) {
  return std::tuple{entry};
}

template <class Entry>
struct Is_plain : std::false_type {};
template <class Record, class Value>
struct Is_plain<Plain_member<Record, Value>> : std::true_type {};

template <class Tuple>
struct All_plain;
template <class... Entries>
struct All_plain<std::tuple<Entries...>>
    : std::bool_constant<(sizeof...(Entries) > 0) && (Is_plain<Entries>::value && ...)> {};

template <class Record>
inline constexpr bool is_plain =
    All_plain<std::remove_cvref_t<decltype(Description<Record>::entries)>>::value;

}  // namespace detail

template <class T>
concept Plain_record = Described<T> && detail::is_plain<T>;
template <class T>
concept Tlv_record = Described<T> && !detail::is_plain<T>;

/// All members of a record in declaration order, each quantity split into its two members.
template <Described Record>
inline constexpr auto members_of = std::apply(
    [](const auto&... entries) {
      return std::tuple_cat(std::tuple<>{}, detail::flatten(entries)...);
    },
    Description<Record>::entries);

template <Described Record>
inline constexpr std::size_t member_count =
    std::tuple_size_v<std::remove_cvref_t<decltype(members_of<Record>)>>;

/// True if each member has a data ID of its own that fits into the 12 bits of a tag.
template <Tlv_record Record>
inline constexpr bool has_valid_ids = std::apply(
    [](const auto&... members) {
      constexpr std::uint16_t last_id = 4095;
      const std::array<std::uint16_t, sizeof...(members)> ids{members.id...};
      for (std::size_t i = 0; i < ids.size(); ++i) {
        if (ids[i] > last_id) return false;
        for (std::size_t j = 0; j < i; ++j)
          if (ids[j] == ids[i]) return false;
      }
      return true;
    },
    members_of<Record>);

/// Calls `visit(member)` for each member in declaration order.
template <Described Record, class Visit>
constexpr void for_each_member(Visit&& visit) {
  std::apply([&](const auto&... members) { (visit(members), ...); }, members_of<Record>);
}

/// Calls `visit(quantity)` for each measured quantity, and only for those.
template <Tlv_record Record, class Visit>
constexpr void for_each_quantity(Visit&& visit) {
  const auto pick = [&]<class Entry>(const Entry& entry) {
    if constexpr (requires { entry.quality; }) visit(entry);
  };
  std::apply([&](const auto&... entries) { (pick(entries), ...); }, Description<Record>::entries);
}

}  // namespace binding
