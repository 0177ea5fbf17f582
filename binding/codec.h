/// Encoding and decoding of every type on the wire: numbers, strings, arrays, vectors, string maps
/// and described records. The top-level entry points are encode() and decode(); proxies and
/// skeletons use them through mw::com::cpp_binding::Serialization.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "binding/tlv_codec.h"
#include "binding/value_codec.h"
#include "mw/com/cpp_binding/serialization.h"

namespace binding {

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
