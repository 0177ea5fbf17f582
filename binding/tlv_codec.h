/// The codec of records of tagged, optional members (TLV): a fast path for members in declaration
/// order, and the decoder for any order.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <tuple>
#include <utility>

#include "binding/value_codec.h"

namespace binding {

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
/// member is in declaration order, the surplus begins behind the last one. Otherwise it begins at
/// the first item that does not fit into the record or has the wrong wire type. That item is behind
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

}  // namespace binding
