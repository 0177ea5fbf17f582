/// The common case of a list of records: all members present, of fixed size and in declaration
/// order. Such records have one form in memory and one on the wire, both known when this is
/// compiled, and are moved from one to the other without a look at single members.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <boost/optional.hpp>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "binding/byte_moves.h"
#include "binding/payload.h"
#include "binding/record.h"

namespace binding::detail {

template <class Value>
inline constexpr bool moves_as_bytes =
    (std::is_same_v<Value, float> || std::is_same_v<Value, double> || std::is_enum_v<Value> ||
     (std::is_integral_v<Value> && !std::is_same_v<Value, bool>)) &&  // of a bool one bit counts
    sizeof(boost::optional<Value>) == alignof(Value) + sizeof(Value);

template <class Record>
inline constexpr bool has_fixed_form = false;
template <Tlv_record Record>
inline constexpr bool has_fixed_form<Record> = std::apply(
    [](const auto&... members) {
      return (moves_as_bytes<typename std::remove_cvref_t<decltype(members)>::value_type> && ...) &&
             sizeof...(members) > 1 && std::is_trivially_copyable_v<Record> &&
             std::endian::native == std::endian::little;
    },
    members_of<Record>);

/// The forms of a record within a list: on the wire behind a length field of four bytes, big
/// endian. In memory a boost::optional is a flag, what aligns the value, and the value; that is an
/// assumption, which moves_are_right() proves.
template <class Record>
struct Forms {
  static constexpr std::size_t length_field = sizeof(std::uint32_t);
  static constexpr std::size_t memory_size = sizeof(Record);
  static constexpr std::size_t wire_size = std::apply(
      [](const auto&... members) {
        return length_field +
               (std::size_t{0} + ... +
                (sizeof(std::uint16_t) +
                 sizeof(typename std::remove_cvref_t<decltype(members)>::value_type)));
      },
      members_of<Record>);

  std::array<Required_byte, wire_size> required_on_wire{};
  std::array<Moved_byte, memory_size> moved_to_memory{};
  std::array<Required_byte, memory_size> required_in_memory{};
  std::array<Moved_byte, wire_size> moved_to_wire{};

  constexpr Forms() {
    std::size_t wire = 0;
    std::size_t memory = 0;
    const auto put_on_wire = [&](std::size_t byte, std::uint8_t mask) {
      const auto value = static_cast<std::uint8_t>(byte);
      required_on_wire[wire] = {value, mask};
      moved_to_wire[wire++] = {Moved_byte::constant, value};
    };
    for (std::size_t shift = 8 * length_field; shift != 0; shift -= 8)
      put_on_wire((wire_size - length_field) >> (shift - 8), 0xFF);
    for_each_member<Record>([&]<class M>(const M& member) {
      using Value = typename M::value_type;
      const auto tag = make_tag(static_cast<Wire_type>(std::countr_zero(sizeof(Value))), member.id);
      put_on_wire(tag >> 8U, tag_mask >> 8U);
      put_on_wire(tag, tag_mask & 0xFFU);
      memory = (memory + alignof(Value) - 1) / alignof(Value) * alignof(Value);
      required_in_memory[memory] = {1, 0xFF};
      moved_to_memory[memory] = {Moved_byte::constant, 1};
      memory += alignof(Value);
      for (std::size_t i = sizeof(Value); i != 0; --i) {
        moved_to_memory[memory + i - 1].from = static_cast<std::int16_t>(wire);
        moved_to_wire[wire++].from = static_cast<std::int16_t>(memory + i - 1);
      }
      memory += sizeof(Value);
    });
  }
};

/// So many records are moved at once: a short one alone does not fill a block.
template <class Record>
inline constexpr std::size_t records_at_once = std::min(Forms<Record>::memory_size,
                                                        Forms<Record>::wire_size) >= block_size
                                                   ? 1
                                                   : 8;

/// The form of several records, one behind the other.
template <std::size_t Count, std::size_t Size>
constexpr auto repeated(const std::array<Required_byte, Size>& form) {
  std::array<Required_byte, Count * Size> all;
  for (std::size_t i = 0; i < all.size(); ++i)
    all[i] = form[i % Size];
  return all;
}
template <std::size_t Count, std::size_t Size>
constexpr auto repeated(const std::array<Moved_byte, Size>& form, std::size_t source_size) {
  std::array<Moved_byte, Count * Size> all;
  for (std::size_t i = 0; i < all.size(); ++i) {
    all[i] = form[i % Size];
    if (all[i].from == Moved_byte::constant) continue;
    all[i].from = static_cast<std::int16_t>(all[i].from + static_cast<int>(i / Size * source_size));
  }
  return all;
}

template <class Record>
inline constexpr auto blocks_to_memory = planned_blocks(
    repeated<records_at_once<Record>>(Forms<Record>{}.required_on_wire),
    repeated<records_at_once<Record>>(Forms<Record>{}.moved_to_memory, Forms<Record>::wire_size));
template <class Record>
inline constexpr auto blocks_to_wire = planned_blocks(
    repeated<records_at_once<Record>>(Forms<Record>{}.required_in_memory),
    repeated<records_at_once<Record>>(Forms<Record>{}.moved_to_wire, Forms<Record>::memory_size));

/// Whether lists of such records are moved in blocks: very short ones are not.
template <class Record>
inline constexpr bool moves_in_blocks = false;
template <class Record>
requires has_fixed_form<Record>
inline constexpr bool moves_in_blocks<Record> =
    blocks_to_memory<Record>.has_value() && blocks_to_wire<Record>.has_value();

template <class Record>
inline constexpr Byte_moves moves_to_memory{Forms<Record>::wire_size, Forms<Record>::memory_size,
                                            records_at_once<Record>, *blocks_to_memory<Record>};
template <class Record>
inline constexpr Byte_moves moves_to_wire{Forms<Record>::memory_size, Forms<Record>::wire_size,
                                          records_at_once<Record>, *blocks_to_wire<Record>};

/// Whether records in memory have the assumed form: values keep their members, and a record without
/// one of its members is not taken for a full one.
template <class Record>
bool moves_are_right() {
  constexpr auto count = records_at_once<Record>;
  using Records = std::array<Record, count>;
  std::array<std::byte, count * Forms<Record>::wire_size> wire;
  const auto moved_to_wire = [&](const Records& records) {
    return move_records(moves_to_wire<Record>, reinterpret_cast<const std::byte*>(records.data()),
                        wire.data(), count) == count;
  };
  Records records;
  std::uint8_t number = 0;
  for (auto& record : records) {
    for_each_member<Record>([&]<class M>(const M& member) {
      std::array<std::uint8_t, sizeof(typename M::value_type)> bytes;
      for (auto& byte : bytes)
        byte = ++number;
      record.*member.pointer = std::bit_cast<typename M::value_type>(bytes);
    });
  }
  Records back;
  if (!moved_to_wire(records) ||
      move_records(moves_to_memory<Record>, wire.data(), reinterpret_cast<std::byte*>(back.data()),
                   count) != count) {
    return false;
  }
  bool right = true;
  for (std::size_t i = 0; i < count; ++i) {
    const auto* on_wire = wire.data() + i * Forms<Record>::wire_size + Forms<Record>::length_field;
    for_each_member<Record>([&]<class M>(const M& member) {
      using Value = typename M::value_type;
      const auto bits =
          load<Bits_of<Value>>(on_wire + sizeof(std::uint16_t), Byte_order::big_endian);
      on_wire += sizeof(std::uint16_t) + sizeof bits;
      for (const auto& value : {records[i].*member.pointer, back[i].*member.pointer})
        right = right && value && std::bit_cast<Bits_of<Value>>(*value) == bits;
    });
  }
  const auto full = wire;
  for_each_member<Record>([&](const auto& member) {
    const auto value = std::exchange(records.back().*member.pointer, boost::none);
    right = right && !moved_to_wire(records);
    records.back().*member.pointer = value;
  });
  return right && moved_to_wire(records) && wire == full;
}

template <class Record>
[[nodiscard]] bool moves_full_records(const Serialization_settings& settings) {
  static const bool right = moves_bytes_fast() && moves_are_right<Record>();
  return right && settings.structure_length_field_size == Forms<Record>::length_field &&
         settings.byte_order == Byte_order::big_endian;
}

/// Appends records, each behind its length field, to `to`, and returns how many it could append: it
/// stops at, or before, the first that is not full. `to` has room for as many full records, also
/// when these are not: blocks are written whole.
template <class Record>
[[nodiscard]] std::size_t write_full_records(std::span<const Record> records,
                                             std::byte* to,
                                             const Serialization_settings& settings) {
  if (!moves_full_records<Record>(settings)) return 0;
  return move_records(moves_to_wire<Record>, reinterpret_cast<const std::byte*>(records.data()), to,
                      records.size());
}

/// The other way round. Records that are there already are replaced.
template <class Record>
[[nodiscard]] std::size_t read_full_records(std::span<const std::byte> from,
                                            std::vector<Record>& records,
                                            const Serialization_settings& settings) {
  if (!moves_full_records<Record>(settings)) return 0;
  const auto most = from.size() / Forms<Record>::wire_size;
  if (records.size() < most) records.resize(most);
  return move_records(moves_to_memory<Record>, from.data(),
                      reinterpret_cast<std::byte*>(records.data()), most);
}

}  // namespace binding::detail
