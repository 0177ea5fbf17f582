/// A second opinion on the codec: payloads read one step of the payload rules after the other, each
/// member of a record in its turn, with no thought of speed.
///
/// The codec differs in one way. For the walk all that follows the last member's turn is a surplus;
/// the codec finds the members in it that came out of order or twice.
#pragma once

#include <array>
#include <exception>
#include <string>
#include <vector>

#include "binding/codec.h"
#include "fuzz/input.h"

namespace fuzz {

class Walk {
 public:
  Walk(binding::Cursor& cursor, const binding::Serialization_settings& settings)
      : cursor_{cursor}, settings_{settings} {}

  template <class T>
  void read_payload(T& value) {
    if (binding::Codec<T>::top_level_length_field) {
      read_nested(value);
    } else {
      read(cursor_.size(), value);
    }
  }
  /// Whether a surplus had a member in it.
  [[nodiscard]] bool saw_late_member() const { return saw_late_member_; }

 private:
  template <class T>
  void read_nested(T& value) {
    const auto field = binding::Codec<T>::length_field(settings_);
    if (field == 0) {
      read(cursor_.size(), value);
      return;
    }
    const auto length = binding::read_length_field(field, cursor_, settings_);
    const auto end = binding::end_position(cursor_.position(), cursor_.size(), length);
    read(end, value);
    finish(end);
  }
  void finish(std::size_t end) {
    if (cursor_.position() > end) binding::throw_record_length_too_small();
    cursor_.seek(end);
  }

  template <class T>
  void read(std::size_t end, T& value) {
    binding::Codec<T>::read(cursor_, end, value, settings_);
  }
  template <class T>
  void read(std::size_t end, std::vector<T>& values) {
    values.clear();
    while (cursor_.position() < end)
      read_nested(values.emplace_back());
  }
  template <class T, std::size_t Count>
  void read(std::size_t, std::array<T, Count>& values) {
    for (auto& value : values)
      read_nested(value);
  }
  template <binding::Plain_record T>
  void read(std::size_t, T& record) {
    binding::for_each_member<T>([&](const auto& member) { read_nested(record.*member.pointer); });
  }
  template <binding::Tlv_record T>
  void read(std::size_t end, T& record) {
    bool all_present = true;
    binding::for_each_member<T>([&](const auto& member) {
      record.*member.pointer = boost::none;
      read_member(end, member, record);
      all_present = all_present && record.*member.pointer;
    });
    if (cursor_.position() >= end) return;
    if (!all_present &&
        begins_with_member<T>({cursor_.data() + cursor_.position(), end - cursor_.position()})) {
      saw_late_member_ = true;
    }
    if (end == cursor_.size()) cursor_.seek(end);  // also without a length field that ends it
  }

  /// One member's turn: it comes next, perhaps behind unknown ones, or it is absent.
  template <class Member, class T>
  void read_member(std::size_t end, const Member& member, T& record) {
    using Value = typename Member::value_type;
    while (cursor_.position() < end && cursor_.position() < cursor_.size()) {
      const auto start = cursor_.position();
      const auto tag = cursor_.read<std::uint16_t>(binding::Byte_order::big_endian);
      const unsigned id = tag & binding::data_id_mask;
      if (id == member.id) {
        if (!agrees<Value>(tag)) binding::throw_invalid_wire_type();
        const auto length = binding::member_size(cursor_, tag, settings_);
        record.*member.pointer = Value{};
        auto& value = *(record.*member.pointer);
        if (binding::wire_type_of(tag) < binding::Wire_type::configured_length) {
          read(cursor_.size(), value);
          return;
        }
        const auto member_end = binding::end_position(cursor_.position(), cursor_.size(), length);
        read(member_end, value);
        finish(member_end);
        return;
      }
      if (is_listed<T>(id)) {
        cursor_.seek(start);
        return;
      }
      const auto size = binding::member_size(cursor_, tag, settings_);
      cursor_.skip(size);
    }
  }

  template <class Value>
  static bool agrees(std::uint16_t tag) {
    using enum binding::Wire_type;
    const auto sent = binding::wire_type_of(tag);
    const auto expected = binding::Codec<Value>::wire_type;
    return sent == expected || (sent >= configured_length && expected >= configured_length);
  }
  template <class T>
  static bool is_listed(unsigned id) {
    bool found = false;
    binding::for_each_member<T>([&](const auto& member) { found = found || member.id == id; });
    return found;
  }
  /// Whether a member comes first in a surplus, perhaps behind unknown ones.
  template <class T>
  bool begins_with_member(Bytes surplus) const {
    binding::Cursor cursor{surplus};
    try {
      while (cursor.remaining() != 0) {
        const auto tag = cursor.read<std::uint16_t>(binding::Byte_order::big_endian);
        const unsigned id = tag & binding::data_id_mask;
        bool agreed = false;
        binding::for_each_member<T>([&]<class Member>(const Member& member) {
          if (member.id == id) agreed = agrees<typename Member::value_type>(tag);
        });
        if (is_listed<T>(id) && !agreed) return false;
        cursor.skip(binding::member_size(cursor, tag, settings_));
        if (agreed) return true;
      }
    } catch (const std::exception&) {
    }
    return false;
  }

  binding::Cursor& cursor_;
  const binding::Serialization_settings& settings_;
  bool saw_late_member_ = false;
};

template <class T>
inline constexpr bool has_scalar_members = true;
template <binding::Tlv_record T>
inline constexpr bool has_scalar_members<T> = binding::detail::full_size<T> != 0;
template <class T>
inline constexpr bool has_scalar_members<std::vector<T>> = has_scalar_members<T>;

}  // namespace fuzz
