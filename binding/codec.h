/// Encoding and decoding of every type on the wire: numbers, strings, arrays, vectors, string maps
/// and described records. The top-level entry points are encode() and decode(); proxies and
/// skeletons use them through mw::com::cpp_binding::Serialization.
#pragma once

#include <algorithm>
#include <array>
#include <map>
#include <string>
#include <vector>

#include "binding/payload.h"
#include "binding/record.h"
#include "binding/trace_json.h"
#include "mw/com/cpp_binding/serialization.h"

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
  /// An element of a few bytes on the wire may take hundreds in memory, so a list reserves only the
  /// memory that its elements need, and is refused if they need more than a list may have.
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

/// A short member is written with its tag in one store that is wider than both. encode() keeps this
/// many bytes free behind the payload, and the next member overwrites the surplus.
inline constexpr std::size_t write_slack = 8;

template <Scalar Value>
std::byte* store_member(std::byte* to,
                        std::uint16_t tag,
                        Value value,
                        const Serialization_settings& around) {
  const auto& settings = settings_within<Value>(around);
  if constexpr (std::endian::native == std::endian::little && sizeof(Value) <= 4) {
    auto bits = std::bit_cast<Bits_of<Value>>(value);
    if (!is_native(settings.byte_order)) bits = detail::swap_bytes(bits);
    const auto word = detail::swap_bytes(tag) | (std::uint64_t{bits} << 16U);
    std::memcpy(to, &word, sizeof word);
    return to + sizeof tag + sizeof bits;
  } else {
    return store(store(to, tag, Byte_order::big_endian), value, settings.byte_order);
  }
}

/// One entry of a record's tag list, with the decoder of its member.
struct Tag_entry {
  std::uint16_t tag;
  /// Decodes the member and marks it present. `end` is the end of the member's announced length.
  void (*read)(Cursor& cursor,
               std::size_t end,
               void* record,
               const Serialization_settings& settings);
};

/// Decodes TLV members in any order from the current position to `end`. Skips unknown data IDs; of
/// a member sent twice the last value holds. Skips surplus bytes, whatever their values. If every
/// member is in declaration order, the surplus is everything behind the last one. Otherwise it
/// begins at the first item that does not fit into the record or has the wrong wire type, behind
/// the last member of the list and behind the first member out of order.
void read_members_in_any_order(Cursor& cursor,
                               std::size_t end,
                               std::span<const Tag_entry> tags,
                               void* record,
                               const Serialization_settings& settings);

namespace detail {

template <class M>
using Value_of = typename std::remove_cvref_t<M>::value_type;

template <class Member>
constexpr std::uint16_t tag_of(const Member& member) {
  return make_tag(Codec<typename Member::value_type>::wire_type, member.id);
}

/// A tag as it lies in memory, so that comparing it needs no swap of received bytes.
constexpr std::uint16_t on_wire(std::uint16_t tag) {
  return is_native(Byte_order::big_endian) ? tag : swap_bytes(tag);
}
inline std::uint16_t load_on_wire(const std::byte* from) {
  std::uint16_t tag = 0;
  std::memcpy(&tag, from, sizeof tag);
  return tag;
}

template <Scalar Value>
Value load_member(const std::byte* tag, const Serialization_settings& settings) {
  return Codec<Value>::load_value(tag + sizeof(std::uint16_t), settings_within<Value>(settings));
}

template <class Record, std::size_t Index>
void read_member(Cursor& cursor,
                 std::size_t end,
                 void* record,
                 const Serialization_settings& settings) {
  constexpr auto& described = std::get<Index>(members_of<Record>);
  using Value = Value_of<decltype(described)>;
  Value value{};
  Codec<Value>::read(cursor, end, value, settings_within<Value>(settings));
  static_cast<Record*>(record)->*described.pointer = std::move(value);
}

template <class Record, std::size_t... Index>
constexpr std::array<Tag_entry, sizeof...(Index)> make_tags(std::index_sequence<Index...>) {
  return {Tag_entry{tag_of(std::get<Index>(members_of<Record>)), &read_member<Record, Index>}...};
}

template <class M>
constexpr std::ptrdiff_t scalar_bytes(const M&) {
  if constexpr (Scalar<typename M::value_type>)
    return sizeof(std::uint16_t) + sizeof(typename M::value_type);
  return 0;
}

/// Bytes of a record with every member present; 0 if a member has no fixed size.
template <class Record>
inline constexpr std::ptrdiff_t full_size = std::apply(
    [](const auto&... members) {
      const bool fixed = ((scalar_bytes(members) != 0) && ...);
      return fixed ? (std::ptrdiff_t{0} + ... + scalar_bytes(members)) : 0;
    },
    members_of<Record>);

/// Offset of each member's tag in a full record.
template <class Record>
inline constexpr auto full_offsets = std::apply(
    [](const auto&... members) {
      std::array<std::ptrdiff_t, sizeof...(members)> offsets{};
      std::ptrdiff_t offset = 0;
      std::size_t index = 0;
      ((offsets[index++] = offset, offset += scalar_bytes(members)), ...);
      return offsets;
    },
    members_of<Record>);

/// The common case, every member present and in order: compares all tags at once. For any other
/// record, changes nothing and returns false.
template <class Record, std::size_t... Index>
bool read_full(const std::byte* from,
               Record& record,
               const Serialization_settings& settings,
               std::index_sequence<Index...>) {
  constexpr auto& members = members_of<Record>;
  constexpr auto& offsets = full_offsets<Record>;
  const unsigned difference = (0U | ... |
                               static_cast<unsigned>(load_on_wire(from + offsets[Index]) ^
                                                     on_wire(tag_of(std::get<Index>(members)))));
  if ((difference & on_wire(tag_mask)) != 0) return false;
  ((record.*std::get<Index>(members).pointer =
        load_member<Value_of<decltype(std::get<Index>(members))>>(from + offsets[Index], settings)),
   ...);
  return true;
}

template <class Record>
bool is_full(const Record& record) {
  // Counting takes no branch per member; testing the members one by one would.
  return std::apply(
             [&](const auto&... members) {
               return (0U + ... + static_cast<unsigned>((record.*members.pointer).has_value()));
             },
             members_of<Record>) == member_count<Record>;
}

template <class Record, std::size_t... Index>
std::byte* write_full(std::byte* to,
                      const Record& record,
                      const Serialization_settings& settings,
                      std::index_sequence<Index...>) {
  constexpr auto& members = members_of<Record>;
  constexpr auto& offsets = full_offsets<Record>;
  (store_member(to + offsets[Index], tag_of(std::get<Index>(members)),
                *(record.*std::get<Index>(members).pointer), settings),
   ...);
  return to + full_size<Record>;
}

}  // namespace detail

/// Tags of all members in declaration order.
template <Tlv_record Record>
inline constexpr auto tag_list =
    detail::make_tags<Record>(std::make_index_sequence<member_count<Record>>{});

/// Records of tagged, optional members.
template <Tlv_record Record>
struct Codec<Record> {
  static_assert(has_valid_ids<Record>, "data IDs are different and at most 4095");
  static constexpr Wire_type wire_type = Wire_type::configured_length;
  static constexpr bool top_level_length_field = false;
  static std::uint64_t length_field(const Serialization_settings& settings) {
    return settings.structure_length_field_size;
  }

  static std::size_t size(const Record& record, const Serialization_settings& settings) {
    std::size_t sum = 0;
    for_each_member<Record>([&]<class M>(const M& m) {
      using Value = typename M::value_type;
      const auto& value = record.*m.pointer;
      if constexpr (Scalar<Value>) {
        sum +=
            static_cast<std::size_t>(value.has_value()) * (sizeof(std::uint16_t) + sizeof(Value));
      } else if (value) {
        sum += sizeof(std::uint16_t) + length_field_size(Codec<Value>::wire_type, settings) +
               Codec<Value>::size(*value, settings_within<Value>(settings));
      }
    });
    return sum;
  }

  static std::byte* write(const Record& record,
                          std::byte* to,
                          const Serialization_settings& given) {
    const auto settings = given;  // a copy: written bytes might change `given`
    if constexpr (detail::full_size<Record> != 0) {
      if (detail::is_full(record)) {
        return detail::write_full(to, record, settings,
                                  std::make_index_sequence<member_count<Record>>{});
      }
    }
    for_each_member<Record>([&]<class M>(const M& m) {
      using Value = typename M::value_type;
      const auto& value = record.*m.pointer;
      if (!value) return;
      if constexpr (Scalar<Value>) {
        to = store_member(to, detail::tag_of(m), *value, settings);
      } else {
        to = store(to, detail::tag_of(m), Byte_order::big_endian);
        const auto& own = settings_within<Value>(settings);
        to = store_length_field(to, length_field_size(Codec<Value>::wire_type, settings),
                                Codec<Value>::size(*value, own), settings);
        to = Codec<Value>::write(*value, to, own);
      }
    });
    return to;
  }

  /// Members in declaration order cost one comparison each and no search. Any other record is left
  /// to the decoder for any order.
  static void read(Cursor& cursor,
                   std::size_t end,
                   Record& record,
                   const Serialization_settings& settings) {
    const auto* position = cursor.data() + cursor.position();
    const auto* const last = cursor.data() + end;
    if constexpr (detail::full_size<Record> != 0) {
      if (last - position >= detail::full_size<Record> &&
          detail::read_full(position, record, settings,
                            std::make_index_sequence<member_count<Record>>{})) {
        cursor.seek(end);
        return;
      }
    }
    for_each_member<Record>([&]<class M>(const M& m) {
      using Value = typename M::value_type;
      auto& value = record.*m.pointer;
      if constexpr (Scalar<Value>) {
        constexpr auto member_bytes =
            static_cast<std::ptrdiff_t>(sizeof(std::uint16_t) + sizeof(Value));
        if (last - position >= member_bytes &&
            (detail::load_on_wire(position) & detail::on_wire(tag_mask)) ==
                detail::on_wire(detail::tag_of(m))) {
          value = detail::load_member<Value>(position, settings);
          position += member_bytes;
          return;
        }
      }
      value = boost::none;
    });
    if (position == last) {
      cursor.seek(end);
      return;
    }
    // A copy, so that the address of the cursor never leaves this function and the cursor can live
    // in registers.
    Cursor whole{cursor};
    read_members_in_any_order(whole, end, tag_list<Record>, &record, settings);
    cursor = whole;
  }

  static void trace(const Record& record, Trace_json& json, unsigned position) {
    json.begin(position, "generated_type");
    unsigned number = 0;
    for_each_member<Record>([&]<class M>(const M& m) {
      ++number;
      if (const auto& value = record.*m.pointer) {
        Codec<typename M::value_type>::trace(*value, json, number);
      }
    });
    json.end();
  }
};

namespace detail {

/// An upper bound of the encoded size. Members of fixed size are not looked at.
template <class T>
std::size_t bound(const T& value, const Serialization_settings& settings) {
  if constexpr (Tlv_record<T>) {
    if constexpr (full_size<T> != 0) return static_cast<std::size_t>(full_size<T>);
  }
  return Codec<T>::size(value, settings);
}
template <Tlv_record T>
std::size_t bound(const std::vector<T>& values, const Serialization_settings& settings) {
  if constexpr (full_size<T> != 0) {
    return values.size() * (static_cast<std::size_t>(full_size<T>) +
                            Codec<T>::length_field(settings_within<T>(settings)));
  }
  return Codec<std::vector<T>>::size(values, settings);
}

template <class T>
std::size_t bound_at_top_level(const T& value, const Serialization_settings& settings) {
  const auto field = Codec<T>::top_level_length_field ? Codec<T>::length_field(settings) : 0;
  return static_cast<std::size_t>(field) + bound(value, settings) + write_slack;
}
template <class T>
std::byte* write_at_top_level(const T& value,
                              std::byte* to,
                              const Serialization_settings& settings) {
  if constexpr (Codec<T>::top_level_length_field) {
    return write_nested(value, to, settings);
  } else {
    return Codec<T>::write(value, to, settings);
  }
}

}  // namespace detail

/// Appends a top-level value: containers with their length field, records without one. If it
/// throws, `out` is unchanged.
template <class T>
void encode(const T& value, Buffer& out, const Serialization_settings& settings = settings_of<T>) {
  const auto start = out.size();
  out.resize(start + detail::bound_at_top_level(value, settings));
  try {
    const auto* end = detail::write_at_top_level(value, out.data() + start, settings);
    out.resize(static_cast<std::size_t>(end - out.data()));
  } catch (...) {
    out.resize(start);
    throw;
  }
}

/// The same into reused memory, which need not be cleared. The result lies in `scratch` until the
/// next use of `scratch`.
template <class T>
[[nodiscard]] std::span<const std::byte> encode_into(
    const T& value, Buffer& scratch, const Serialization_settings& settings = settings_of<T>) {
  const auto bound = detail::bound_at_top_level(value, settings);
  if (scratch.size() < bound) scratch.resize(bound);
  return {scratch.data(), detail::write_at_top_level(value, scratch.data(), settings)};
}

/// Reads a top-level value at the cursor. After an exception `value` is in an unspecified valid
/// state.
template <class T>
void decode(Cursor& cursor, T& value, const Serialization_settings& settings = settings_of<T>) {
  if constexpr (Codec<T>::top_level_length_field) {
    read_nested(cursor, value, settings);
  } else {
    Codec<T>::read(cursor, cursor.size(), value, settings);
  }
}

template <class T>
concept Encodable = requires {
  Codec<T>::wire_type;
};

}  // namespace binding

template <binding::Encodable T>
struct mw::com::cpp_binding::Serialization<T> {
  static void encode(const T& value, std::vector<std::byte>& out) { binding::encode(value, out); }
  static std::span<const std::byte> encode_into(const T& value, std::vector<std::byte>& scratch) {
    return binding::encode_into(value, scratch);
  }
  static void decode(std::span<const std::byte>& in, T& value) {
    binding::Cursor cursor{in};
    binding::decode(cursor, value);
    in = in.subspan(cursor.position());
  }
  static void trace(const T& value, Trace_json& json, unsigned position) {
    binding::Codec<T>::trace(value, json, position);
  }
};
