/// The description of a service interface as plain data, from the description in the code: for
/// tools that know the application's manifest but not its code. An application prints its own with
/// interfaces_as_json(); `posctl describe --wireshark … --interfaces` reads it.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "binding/codec.h"
#include "mw/com/cpp_binding/service.h"

namespace binding {

/// A value on the wire.
struct Type_description {
  enum class Kind : std::uint8_t { number, enumeration, text, list, record };
  struct Named_value {
    std::uint64_t value = 0;  ///< its bits
    std::string name;
  };
  struct Member;

  Kind kind = Kind::number;
  std::string name{};         ///< of a record; of numbers and enumerations "uint32", "float64"
  bool big_endian = true;     ///< a number, an enumeration, the length field of a text
  unsigned length_bytes = 0;  ///< size of the length field in front; 0: none
  std::vector<Named_value> values{};  ///< of an enumeration
  unsigned least = 0;                 ///< elements of a list
  unsigned most = 65535;
  bool tagged = false;          ///< a record whose members stand behind tags
  std::vector<Member> members;  ///< of a record; of a list one, its element
};

struct Type_description::Member {
  unsigned id = 0;  ///< data ID, or the place in a record without tags
  std::string name;
  std::string unit;
  Type_description type;
};

struct Interface_description {
  enum class Kind : std::uint8_t { method, event, field };
  struct Element {
    Kind kind = Kind::field;
    std::string name;
    std::vector<Type_description> inputs;   ///< of a method
    std::optional<Type_description> value;  ///< of a method its output
  };

  std::string name;
  std::vector<Element> elements;
};

/// The type by which a member of a record is described. A tool may specialise it to show more than
/// the type in the code says.
template <class Record, class Value>
struct Described_as {
  using type = Value;
};

namespace detail {

template <class T>
[[nodiscard]] std::string number_name() {
  const char* kind = "uint";
  if constexpr (std::is_floating_point_v<T>) {
    kind = "float";
  } else if constexpr (std::is_signed_v<T>) {
    kind = "int";
  }
  return kind + std::to_string(8 * sizeof(T));
}

template <class T>
[[nodiscard]] Type_description describe_with(const Serialization_settings& settings,
                                             std::uint64_t length_field);

/// Of an item inside another one.
template <class T>
[[nodiscard]] Type_description describe_inside(const Serialization_settings& around) {
  const auto& settings = settings_within<T>(around);
  return describe_with<T>(settings, Codec<T>::length_field(settings));
}

template <class T>
void describe_enumeration(Type_description& type) {
  using Kind = Type_description::Kind;
  type.kind = Kind::enumeration;
  type.name = number_name<Bits_of<T>>();
  if constexpr (std::is_same_v<T, bool>) {
    type.values = {{0, "false"}, {1, "true"}};
  } else {
    for (const auto& [value, name] : enumerators<T>)
      type.values.push_back({static_cast<Bits_of<T>>(value), std::string(name)});
  }
}

template <class Record>
void describe_record(Type_description& type, const Serialization_settings& settings) {
  type.kind = Type_description::Kind::record;
  type.name = Description<Record>::name;
  type.tagged = Tlv_record<Record>;
  std::string quantity;
  for_each_member<Record>([&]<class M>(const M& described) {
    using Value = typename Described_as<Record, typename M::value_type>::type;
    Type_description::Member member{.id = static_cast<unsigned>(type.members.size()),
                                    .name = std::string(described.name),
                                    .unit = std::string(described.unit),
                                    .type = describe_inside<Value>(settings)};
    if constexpr (Tlv_record<Record>) member.id = described.id;
    if constexpr (std::is_same_v<Value, Value_type>) {
      member.name = quantity + "_valueType";
    } else {
      quantity = member.name;
    }
    type.members.push_back(std::move(member));
  });
}

template <class T>
void describe_list(Type_description& type, const Serialization_settings& settings) {
  type.kind = Type_description::Kind::list;
  if constexpr (requires { typename T::mapped_type; }) {
    Type_description entry{.kind = Type_description::Kind::record, .name = "entry", .members = {}};
    entry.members = {{0, "key", "", describe_inside<typename T::key_type>(settings)},
                     {1, "value", "", describe_inside<typename T::mapped_type>(settings)}};
    type.members = {{0, "", "", std::move(entry)}};
  } else {
    type.members = {{0, "", "", describe_inside<typename T::value_type>(settings)}};
  }
  if constexpr (requires { std::tuple_size<T>::value; })
    type.least = type.most = static_cast<unsigned>(std::tuple_size_v<T>);
}

template <class T>
Type_description describe_with(const Serialization_settings& settings, std::uint64_t length_field) {
  Type_description type{.big_endian = settings.byte_order == Byte_order::big_endian,
                        .length_bytes = static_cast<unsigned>(length_field),
                        .members = {}};
  if constexpr (Named_enumeration<T> || std::is_same_v<T, bool>) {
    describe_enumeration<T>(type);
  } else if constexpr (Scalar<T>) {
    if constexpr (std::is_enum_v<T>) {
      type.name = number_name<std::underlying_type_t<T>>();
    } else {
      type.name = number_name<T>();
    }
  } else if constexpr (std::is_same_v<T, std::string>) {
    type.kind = Type_description::Kind::text;
  } else if constexpr (Described<T>) {
    describe_record<T>(type, settings);
  } else {
    describe_list<T>(type, settings);
  }
  return type;
}

/// Of a whole payload.
template <class T>
[[nodiscard]] Type_description describe_payload() {
  const Serialization_settings& settings = settings_of<T>;
  return describe_with<T>(settings,
                          Codec<T>::top_level_length_field ? Codec<T>::length_field(settings) : 0);
}

template <class Output, class... Inputs>
[[nodiscard]] Interface_description::Element describe_element(
    const mw::com::cpp_binding::Method<Output(Inputs...)>& method) {
  Interface_description::Element element{
      Interface_description::Kind::method, std::string(method.name), {}, {}};
  (element.inputs.push_back(describe_payload<Inputs>()), ...);
  if constexpr (!std::is_void_v<Output>) element.value = describe_payload<Output>();
  return element;
}
template <class Value>
[[nodiscard]] Interface_description::Element describe_element(
    const mw::com::cpp_binding::Event<Value>& event) {
  return {
      Interface_description::Kind::event, std::string(event.name), {}, describe_payload<Value>()};
}
template <class Value>
[[nodiscard]] Interface_description::Element describe_element(
    const mw::com::cpp_binding::Field<Value>& field) {
  return {
      Interface_description::Kind::field, std::string(field.name), {}, describe_payload<Value>()};
}

}  // namespace detail

template <class Service>
[[nodiscard]] Interface_description interface_description() {
  Interface_description interface {
    .name = std::string(Service::name), .elements = {}
  };
  std::apply(
      [&](const auto&... elements) {
        (interface.elements.push_back(detail::describe_element(elements)), ...);
      },
      Service::elements);
  return interface;
}

[[nodiscard]] std::string to_json(const std::vector<Interface_description>& interfaces);

/// Of the services that an application provides and uses, as a JSON document.
template <class... Services>
[[nodiscard]] std::string interfaces_as_json() {
  return to_json({interface_description<Services>()...});
}

/// The opposite of to_json(). Throws std::runtime_error that names the place of a mistake.
[[nodiscard]] std::vector<Interface_description> interfaces_of_json(std::string_view text);

}  // namespace binding
