/// The promises of the codec, checked for one type and one payload.
#pragma once

#include <algorithm>
#include <bit>
#include <boost/optional.hpp>
#include <exception>
#include <string>
#include <type_traits>
#include <vector>

#include "binding/codec.h"
#include "fuzz/input.h"
#include "fuzz/walk.h"
#include "mw/com/cpp_binding/trace.h"

namespace fuzz {

/// Equal to the bit, so that a NaN equals itself.
template <class T>
bool same(const T& a, const T& b);

template <class T>
bool same_value(const boost::optional<T>& a, const boost::optional<T>& b) {
  return a.has_value() == b.has_value() && (!a || same(*a, *b));
}
template <class T>
bool same_value(const std::vector<T>& a, const std::vector<T>& b) {
  return std::ranges::equal(a, b, [](const T& x, const T& y) { return same(x, y); });
}
template <class T, std::size_t Count>
bool same_value(const std::array<T, Count>& a, const std::array<T, Count>& b) {
  return std::ranges::equal(a, b, [](const T& x, const T& y) { return same(x, y); });
}
template <binding::Described T>
bool same_value(const T& a, const T& b) {
  bool equal = true;
  binding::for_each_member<T>(
      [&](const auto& member) { equal = equal && same(a.*member.pointer, b.*member.pointer); });
  return equal;
}
template <binding::Scalar T>
bool same_value(T a, T b) {
  return std::bit_cast<binding::Bits_of<T>>(a) == std::bit_cast<binding::Bits_of<T>>(b);
}
inline bool same_value(const std::string& a, const std::string& b) {
  return a == b;
}
inline bool same_value(const std::map<std::string, std::string>& a,
                       const std::map<std::string, std::string>& b) {
  return a == b;
}

template <class T>
bool same(const T& a, const T& b) {
  return same_value(a, b);
}

/// Asks for the value of everything that a trace record would hold.
class Trace_eater final : public mw::com::cpp_binding::Trace_json {
 public:
  void uint8(unsigned, std::uint8_t) override {}
  void uint16(unsigned, std::uint16_t) override {}
  void undefined(unsigned) override {}
  void begin(unsigned, std::string_view) override { ++depth_; }
  void end() override { --depth_; }
  [[nodiscard]] bool closed() const { return depth_ == 0; }

 private:
  int depth_ = 0;
};

template <class T>
void check_any_order(const T&, Bytes, const binding::Serialization_settings&) {}

/// The decoder for members in order, and the one for full records, agree with the one for any
/// order.
template <binding::Tlv_record T>
void check_any_order(const T& record,
                     Bytes encoded,
                     const binding::Serialization_settings& settings) {
  T again;
  binding::Cursor cursor{encoded};
  binding::read_members_in_any_order(cursor, encoded.size(), binding::tag_list<T>, &again,
                                     settings);
  require(same(record, again), "both decoders read the same record");
}

/// The codec reads what the walk reads, or refuses the payload for the same reason.
template <class T>
void check_walk(Bytes payload, const binding::Serialization_settings& settings) {
  const auto outcome = [&](auto read) {
    binding::Cursor cursor{payload};
    try {
      read(cursor);
      return std::string{};
    } catch (const std::exception& error) {
      return std::string{error.what()};
    }
  };
  T decoded{};
  T walked{};
  bool late = false;
  const auto error_of_codec =
      outcome([&](binding::Cursor& cursor) { binding::decode(cursor, decoded, settings); });
  const auto error_of_walk = outcome([&](binding::Cursor& cursor) {
    Walk walk{cursor, settings};
    try {
      walk.read_payload(walked);
    } catch (...) {
      late = walk.saw_late_member();
      throw;
    }
    late = walk.saw_late_member();
  });
  // A late member may itself be malformed inside, unless it is a scalar.
  if (late && !has_scalar_members<T>) return;
  require(error_of_codec == error_of_walk, "codec and walk refuse the same payloads");
  require(late || !error_of_walk.empty() || same(decoded, walked),
          "codec and walk read the same value");
}

template <class T>
void check_surplus(const T&, Bytes, const binding::Serialization_settings&) {}

/// The walk once more over records that each have a surplus behind them.
template <binding::Tlv_record T>
void check_surplus(const std::vector<T>& records,
                   Bytes surplus,
                   const binding::Serialization_settings& settings) {
  binding::Buffer body;
  binding::Buffer payload;
  try {
    for (const auto& record : records) {
      binding::Buffer bytes;
      binding::encode(record, bytes, settings);
      bytes.insert(bytes.end(), surplus.begin(), surplus.end());
      binding::write_length_field(settings.structure_length_field_size, bytes.size(), body,
                                  settings);
      body.insert(body.end(), bytes.begin(), bytes.end());
    }
    binding::write_length_field(settings.array_length_field_size, body.size(), payload, settings);
  } catch (const std::exception&) {
    return;  // too long for a short length field
  }
  payload.insert(payload.end(), body.begin(), body.end());
  check_walk<std::vector<T>>(Exact{payload}, settings);
}

/// What decodes encodes again, to something that decodes to the same value. Settings that the type
/// does not use may make encoding impossible; that is said by an exception.
template <class T>
void check_codec(Bytes payload, const binding::Serialization_settings& settings, bool usual) {
  check_walk<T>(payload, settings);
  T value{};
  binding::Cursor cursor{payload};
  try {
    binding::decode(cursor, value, settings);
  } catch (const std::exception&) {
    return;
  }
  require(cursor.position() <= payload.size(), "the cursor stays inside the payload");

  Trace_eater trace;
  binding::Codec<T>::trace(value, trace, 1);
  require(trace.closed(), "what a trace record opens is closed");

  binding::Buffer encoded;
  try {
    binding::encode(value, encoded, settings);
  } catch (const std::exception&) {
    require(!usual, "what decodes encodes again");
    require(encoded.empty(), "an encoding that fails leaves nothing behind");
    return;
  }
  const auto field =
      binding::Codec<T>::top_level_length_field ? binding::Codec<T>::length_field(settings) : 0;
  require(encoded.size() == field + binding::Codec<T>::size(value, settings),
          "the size pass is right");

  // Without a length a record in a vector has no end.
  if (settings.structure_length_field_size == 0) return;
  T again{};
  const Exact exact{encoded};
  binding::Cursor second{exact};
  binding::decode(second, again, settings);
  require(second.remaining() == 0, "decoding takes what encoding wrote");
  require(same(value, again), "a round trip changes nothing");
  check_any_order(value, exact, settings);
  if (!payload.empty()) {
    const auto size = std::to_integer<std::size_t>(payload.back()) % 16;
    check_surplus(value, payload.last(std::min(size, payload.size())), settings);
  }

  // Into a buffer that held something else.
  binding::Buffer used(payload.begin(), payload.end());
  require(std::ranges::equal(binding::encode_into(again, used, settings), encoded),
          "encoding depends on nothing but the value");
}

/// Setting 0 is what all services use; the others cover the sizes of the length fields and both
/// byte orders.
inline binding::Serialization_settings settings_number(std::uint8_t number) {
  binding::Serialization_settings settings;
  if (number == 0) return settings;
  constexpr std::array<std::uint64_t, 4> sizes{4, 1, 2, 0};
  settings.array_length_field_size = sizes[number & 3U];
  settings.string_length_field_size = sizes[(number >> 2U) & 3U];
  settings.structure_length_field_size = sizes[(number >> 4U) & 3U];
  if ((number & 0x40U) != 0) settings.byte_order = binding::Byte_order::little_endian;
  // Wire type 4 wants three equal sizes: half of the numbers give it that.
  if ((number & 0x80U) != 0) {
    settings.string_length_field_size = settings.array_length_field_size;
    settings.structure_length_field_size = settings.array_length_field_size;
  }
  return settings;
}

template <class... Types>
struct Codec_types {
  /// Type, settings, payload.
  static void check(const std::uint8_t* data, std::size_t size) {
    Input input{data, size};
    const auto type = input.u8() % sizeof...(Types);
    const auto number = input.u8();
    const auto settings = settings_number(number);
    constexpr std::array checks{&check_codec<Types>...};
    checks[type](Exact{input.rest()}, settings, number == 0);
  }
};

}  // namespace fuzz
