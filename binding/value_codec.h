/// Codecs of values: numbers, strings, lists, string maps and records without tags. codec.h encodes
/// and decodes whole payloads with them.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "binding/payload.h"
#include "binding/record.h"
#include "binding/trace_json.h"

namespace binding {

/// Stands for the settings of the item around a type; at the top level, for the defaults.
struct Settings_of_surroundings : Serialization_settings {};

/// Settings of an encoded type. Specialise it, as Serialization_settings, for a type whose settings
/// differ from those of the item around it.
template <class T>
inline constexpr Settings_of_surroundings settings_of{};

/// Settings of a T inside an item with the settings `around`.
template <class T>
constexpr const Serialization_settings& settings_within(const Serialization_settings& around) {
  if constexpr (std::is_same_v<decltype(settings_of<T>), const Settings_of_surroundings>) {
    return around;
  } else {
    return settings_of<T>;
  }
}

/// Codec<T> handles the bare value, without the length field of a nested item. `settings` are those
/// of T. Its members:
///
///   static constexpr Wire_type wire_type;
///     as a TLV member
///   static std::uint64_t length_field(settings);
///     size of the length field of a nested item; 0: it has none
///   static constexpr bool top_level_length_field;
///     true if it also has that field at the top level of a payload: containers do, records do not
///   static std::size_t size(const T&, settings);
///   static std::byte* write(const T&, std::byte* to, settings);
///     returns the position behind it
///   static void read(Cursor&, std::size_t end, T&, settings);
///     `end` is the end of its announced length
///   static void trace(const T&, Trace_json&, unsigned position);
template <class T>
struct Codec;

using mw::com::cpp_binding::Trace_json;

template <class T>
concept Scalar = std::is_arithmetic_v<T> || std::is_enum_v<T>;

template <Scalar T>
struct Codec<T> {
  static constexpr Wire_type wire_type = static_cast<Wire_type>(std::countr_zero(sizeof(T)));
  static constexpr bool top_level_length_field = false;
  static constexpr std::uint64_t length_field(const Serialization_settings&) { return 0; }
  static constexpr std::size_t size(T, const Serialization_settings&) { return sizeof(T); }
  static std::byte* write(T value, std::byte* to, const Serialization_settings& settings) {
    return store(to, value, settings.byte_order);
  }
  static T load_value(const std::byte* from, const Serialization_settings& settings) {
    if constexpr (std::is_same_v<T, bool>) {
      // Only the lowest bit counts (someip_817); any other pattern would not be a bool in memory.
      return (std::to_integer<unsigned>(*from) & 1U) != 0;
    } else {
      return load<T>(from, settings.byte_order);
    }
  }
  static void read(Cursor& cursor, std::size_t, T& value, const Serialization_settings& settings) {
    cursor.ensure_available(sizeof(T));
    value = load_value(cursor.data() + cursor.position(), settings);
    cursor.skip(sizeof(T));
  }
  static void trace(T value, Trace_json& json, unsigned position) {
    if constexpr (sizeof(T) == 1) {
      json.uint8(position, std::bit_cast<std::uint8_t>(value));
    } else if constexpr (sizeof(T) == 2) {
      json.uint16(position, std::bit_cast<std::uint16_t>(value));
    } else {
      json.undefined(position);
    }
  }
};

/// An item behind its length field (if it has one), inside an item with the settings `around`.
template <class T>
std::size_t nested_size(const T& value, const Serialization_settings& around) {
  const auto& settings = settings_within<T>(around);
  return Codec<T>::length_field(settings) + Codec<T>::size(value, settings);
}
template <class T>
std::byte* write_nested(const T& value, std::byte* to, const Serialization_settings& around) {
  const auto& settings = settings_within<T>(around);
  const auto field = Codec<T>::length_field(settings);
  auto* const body = to + field;
  auto* const end = Codec<T>::write(value, body, settings);
  if (field != 0) store_length_field(to, field, static_cast<std::uint64_t>(end - body), settings);
  return end;
}
template <class T>
void read_nested(Cursor& cursor, T& value, const Serialization_settings& around) {
  const auto& settings = settings_within<T>(around);
  const auto field = Codec<T>::length_field(settings);
  if (field == 0) {
    Codec<T>::read(cursor, cursor.size(), value, settings);
    return;
  }
  const auto length = read_length_field(field, cursor, settings);
  const auto end = end_position(cursor.position(), cursor.size(), length);
  Codec<T>::read(cursor, end, value, settings);
  finish_item(cursor, end);
}
/// The number of nested items that begin ahead of `end`, by their length fields; the last one may
/// be cut. 0 if they have no length field.
template <class T>
std::size_t count_nested(Cursor cursor, std::size_t end, const Serialization_settings& around) {
  const auto& settings = settings_within<T>(around);
  const auto field = Codec<T>::length_field(settings);
  std::size_t count = 0;
  while (field != 0 && cursor.position() < end) {
    ++count;
    if (cursor.remaining() < field) break;
    const auto length = read_length_field(field, cursor, settings);
    if (cursor.remaining() < length) break;
    cursor.skip(length);
  }
  return count;
}

/// Raw bytes, no byte-order mark, no terminator.
template <>
struct Codec<std::string> {
  static constexpr Wire_type wire_type = Wire_type::configured_length;
  static constexpr bool top_level_length_field = true;
  static std::uint64_t length_field(const Serialization_settings& settings) {
    return settings.string_length_field_size;
  }
  static std::size_t size(const std::string& value, const Serialization_settings&) {
    return value.size();
  }
  static std::byte* write(const std::string& value, std::byte* to, const Serialization_settings&) {
    std::memcpy(to, value.data(), value.size());
    return to + value.size();
  }
  static void read(Cursor& cursor,
                   std::size_t end,
                   std::string& value,
                   const Serialization_settings&) {
    value.resize(end - cursor.position());
    cursor.read(value.data(), value.size());
  }
  static void trace(const std::string&, Trace_json& json, unsigned position) {
    json.undefined(position);
  }
};

/// Memory of the longest list of records or texts that is decoded. A list of more elements than
/// that holds next to nothing in each: the longest message has fewer positions with coordinates.
inline constexpr std::size_t max_list_bytes = std::size_t{4} << 20U;

template <class T>
void trace_elements(const T& values, Trace_json& json, unsigned position, std::string_view kind) {
  json.begin(position, kind);
  unsigned element = 0;
  for (const auto& value : values) {
    Codec<std::remove_cvref_t<decltype(value)>>::trace(value, json, ++element);
  }
  json.end();
}

template <class T>
struct Codec<std::vector<T>> {
  static constexpr Wire_type wire_type = Wire_type::configured_length;
  static constexpr bool top_level_length_field = true;
  static std::uint64_t length_field(const Serialization_settings& settings) {
    return settings.array_length_field_size;
  }
  static std::size_t size(const std::vector<T>& values, const Serialization_settings& settings) {
    if constexpr (Scalar<T>) {
      return values.size() * sizeof(T);
    } else {
      std::size_t sum = 0;
      for (const auto& value : values)
        sum += nested_size(value, settings);
      return sum;
    }
  }
  static std::byte* write(const std::vector<T>& values,
                          std::byte* to,
                          const Serialization_settings& settings) {
    if (settings.array_length_field_size == 0) throw_vector_without_length_field();
    for (const auto& value : values)
      to = write_nested(value, to, settings);
    return to;
  }
  static void read(Cursor& cursor,
                   std::size_t end,
                   std::vector<T>& values,
                   const Serialization_settings& settings) {
    // Reads into existing elements: these need neither be destroyed nor cleared first.
    std::size_t count = 0;
    for (; cursor.position() < end; ++count) {
      if (count == values.size()) {
        if (count == values.capacity()) reserve_rest(cursor, end, values, settings);
        values.emplace_back();
      }
      read_nested(cursor, values[count], settings);
    }
    values.resize(count);
  }
  static void trace(const std::vector<T>& values, Trace_json& json, unsigned position) {
    trace_elements(values, json, position, "vector");
  }

 private:
  /// An element of a few bytes on the wire may take hundreds in memory. A list reserves only the
  /// memory that its elements need; a list that needs more than max_list_bytes is refused.
  [[gnu::cold, gnu::noinline]] static void reserve_rest(const Cursor& cursor,
                                                        std::size_t end,
                                                        std::vector<T>& values,
                                                        const Serialization_settings& settings) {
    const auto rest =
        Scalar<T> ? (end - cursor.position()) / sizeof(T) : count_nested<T>(cursor, end, settings);
    if (!Scalar<T> && values.size() + rest > max_list_bytes / sizeof(T))
      throw_list_takes_too_much();
    values.reserve(values.size() + rest);
  }
};

template <class T, std::size_t Count>
struct Codec<std::array<T, Count>> {
  static constexpr Wire_type wire_type = Wire_type::configured_length;
  static constexpr bool top_level_length_field = false;
  static std::uint64_t length_field(const Serialization_settings& settings) {
    return settings.array_length_field_size;
  }
  static std::size_t size(const std::array<T, Count>& values,
                          const Serialization_settings& settings) {
    std::size_t sum = 0;
    for (const auto& value : values)
      sum += nested_size(value, settings);
    return sum;
  }
  static std::byte* write(const std::array<T, Count>& values,
                          std::byte* to,
                          const Serialization_settings& settings) {
    for (const auto& value : values)
      to = write_nested(value, to, settings);
    return to;
  }
  static void read(Cursor& cursor,
                   std::size_t,
                   std::array<T, Count>& values,
                   const Serialization_settings& settings) {
    for (auto& value : values)
      read_nested(cursor, value, settings);
  }
  static void trace(const std::array<T, Count>& values, Trace_json& json, unsigned position) {
    trace_elements(values, json, position, "array");
  }
};

/// Meta information of the diagnostic methods: keys and values, each behind a length field.
template <>
struct Codec<std::map<std::string, std::string>> {
  using Map = std::map<std::string, std::string>;
  static constexpr Wire_type wire_type = Wire_type::configured_length;
  static constexpr bool top_level_length_field = true;
  static std::uint64_t length_field(const Serialization_settings& settings) {
    return settings.array_length_field_size;
  }
  static std::size_t size(const Map& map, const Serialization_settings& settings);
  static std::byte* write(const Map& map, std::byte* to, const Serialization_settings& settings);
  static void read(Cursor& cursor,
                   std::size_t end,
                   Map& map,
                   const Serialization_settings& settings);
  static void trace(const Map&, Trace_json& json, unsigned position) { json.undefined(position); }
};

/// Records without tags: members in declaration order.
template <Plain_record Record>
struct Codec<Record> {
  static constexpr Wire_type wire_type = Wire_type::configured_length;
  static constexpr bool top_level_length_field = false;
  static std::uint64_t length_field(const Serialization_settings& settings) {
    return settings.structure_length_field_size;
  }
  static std::size_t size(const Record& record, const Serialization_settings& settings) {
    std::size_t sum = 0;
    for_each_member<Record>(
        [&](const auto& m) { sum += nested_size(record.*m.pointer, settings); });
    return sum;
  }
  static std::byte* write(const Record& record,
                          std::byte* to,
                          const Serialization_settings& settings) {
    for_each_member<Record>(
        [&](const auto& m) { to = write_nested(record.*m.pointer, to, settings); });
    return to;
  }
  static void read(Cursor& cursor,
                   std::size_t,
                   Record& record,
                   const Serialization_settings& settings) {
    for_each_member<Record>(
        [&](const auto& m) { read_nested(cursor, record.*m.pointer, settings); });
  }
  static void trace(const Record& record, Trace_json& json, unsigned position) {
    json.begin(position, "generated_type");
    unsigned number = 0;
    for_each_member<Record>([&](const auto& m) {
      Codec<std::remove_cvref_t<decltype(record.*m.pointer)>>::trace(record.*m.pointer, json,
                                                                     ++number);
    });
    json.end();
  }
};

}  // namespace binding
