/// The byte-level rules of every payload: byte order, length fields, bounds, the cursor over
/// received bytes. They are the transformer rules of AUTOSAR's SOME/IP protocol. Errors are std
/// exceptions with fixed texts. codec.h builds records and containers on these rules.
#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>
#include <type_traits>
#include <vector>

namespace binding {

enum class Byte_order : std::uint32_t { big_endian = 4321, little_endian = 1234 };

/// One set per encoded type, see settings_of in value_codec.h. Sizes of length fields are 0 (none),
/// 1, 2 or 4 bytes.
struct Serialization_settings {
  std::uint64_t first = 0;
  Byte_order byte_order = Byte_order::big_endian;
  std::uint32_t second = 1;
  std::uint64_t array_length_field_size = 4;
  std::uint64_t string_length_field_size = 4;
  std::uint64_t structure_length_field_size = 4;
};

/// The item behind a TLV tag (PRS_SOMEIP_00205): a value of 2^n bytes for the types 0 to 3, a
/// length field otherwise.
enum class Wire_type : std::uint8_t {
  bits_8 = 0,
  bits_16 = 1,
  bits_32 = 2,
  bits_64 = 3,
  configured_length = 4,
  length_8 = 5,
  length_16 = 6,
  length_32 = 7,
};

/// Tag of a TLV member: reserved bit 15, wire type in bits 14 to 12, data ID in bits 11 to 0;
/// always big-endian on the wire.
inline constexpr std::uint16_t data_id_mask = 0x0FFF;
inline constexpr std::uint16_t tag_mask = 0x7FFF;

[[nodiscard]] constexpr std::uint16_t make_tag(Wire_type wire_type, std::uint16_t data_id) {
  return static_cast<std::uint16_t>((static_cast<unsigned>(wire_type) << 12U) |
                                    (data_id & data_id_mask));
}
[[nodiscard]] constexpr Wire_type wire_type_of(std::uint16_t tag) {
  return static_cast<Wire_type>((tag >> 12U) & 7U);
}

// The exact texts. Thrown out of line, so that the paths without an error stay small.
[[noreturn]] void throw_length_does_not_fit();          ///< std::overflow_error
[[noreturn]] void throw_invalid_length_field_size();    ///< std::invalid_argument
[[noreturn]] void throw_offset_overflow();              ///< std::overflow_error
[[noreturn]] void throw_invalid_end_position();         ///< std::out_of_range
[[noreturn]] void throw_record_length_too_small();      ///< std::out_of_range
[[noreturn]] void throw_read_beyond_end();              ///< std::out_of_range
[[noreturn]] void throw_seek_beyond_end();              ///< std::out_of_range
[[noreturn]] void throw_null_destination();             ///< std::invalid_argument
[[noreturn]] void throw_invalid_wire_type();            ///< std::runtime_error
[[noreturn]] void throw_no_tag_list();                  ///< std::runtime_error
[[noreturn]] void throw_vector_without_length_field();  ///< std::invalid_argument
[[noreturn]] void throw_list_takes_too_much();          ///< std::length_error
/// std::runtime_error, which names the array, string and structure length field sizes.
[[noreturn]] void throw_unequal_length_field_sizes(const Serialization_settings& settings);

namespace detail {
template <std::size_t Size>
struct Unsigned_of_size;
template <>
struct Unsigned_of_size<1> {
  using type = std::uint8_t;
};
template <>
struct Unsigned_of_size<2> {
  using type = std::uint16_t;
};
template <>
struct Unsigned_of_size<4> {
  using type = std::uint32_t;
};
template <>
struct Unsigned_of_size<8> {
  using type = std::uint64_t;
};

constexpr std::uint8_t swap_bytes(std::uint8_t value) {
  return value;
}
constexpr std::uint16_t swap_bytes(std::uint16_t value) {
  return __builtin_bswap16(value);
}
constexpr std::uint32_t swap_bytes(std::uint32_t value) {
  return __builtin_bswap32(value);
}
constexpr std::uint64_t swap_bytes(std::uint64_t value) {
  return __builtin_bswap64(value);
}
}  // namespace detail

/// The unsigned integer with the bit pattern of a value: signed and floating-point members are sent
/// as that pattern in the configured byte order.
template <class T>
using Bits_of = typename detail::Unsigned_of_size<sizeof(T)>::type;

[[nodiscard]] constexpr bool is_native(Byte_order order) {
  return (order == Byte_order::big_endian) == (std::endian::native == std::endian::big);
}

/// Reads a value from unaligned bytes.
template <class T>
[[nodiscard]] inline T load(const std::byte* from, Byte_order order) {
  Bits_of<T> bits;
  std::memcpy(&bits, from, sizeof bits);
  if (!is_native(order)) bits = detail::swap_bytes(bits);
  return std::bit_cast<T>(bits);
}

/// Writes a value to unaligned bytes and returns the position behind it.
template <class T>
inline std::byte* store(std::byte* to, T value, Byte_order order) {
  auto bits = std::bit_cast<Bits_of<T>>(value);
  if (!is_native(order)) bits = detail::swap_bytes(bits);
  std::memcpy(to, &bits, sizeof bits);
  return to + sizeof bits;
}

using Buffer = std::vector<std::byte>;

namespace detail {
template <class T>
std::byte* store_checked(std::byte* to, std::uint64_t value, Byte_order order) {
  if (value > std::numeric_limits<T>::max()) throw_length_does_not_fit();
  return store(to, static_cast<T>(value), order);
}
}  // namespace detail

/// Writes a length field of `size` bytes and returns the position behind it; size 0 writes nothing.
/// Throws for a size other than 0, 1, 2, 4 and for a value that does not fit.
inline std::byte* store_length_field(std::byte* to,
                                     std::uint64_t size,
                                     std::uint64_t value,
                                     const Serialization_settings& settings) {
  switch (size) {
    case 0:
      return to;
    case 1:
      return detail::store_checked<std::uint8_t>(to, value, settings.byte_order);
    case 2:
      return detail::store_checked<std::uint16_t>(to, value, settings.byte_order);
    case 4:
      return detail::store_checked<std::uint32_t>(to, value, settings.byte_order);
    default:
      throw_invalid_length_field_size();
  }
}
/// The same, appended to a buffer. If it throws, the buffer is unchanged.
void write_length_field(std::uint64_t size,
                        std::uint64_t value,
                        Buffer& buffer,
                        const Serialization_settings& settings);

/// Received bytes and the current position in them. Every read advances the position; no read
/// passes the end.
class Cursor {
 public:
  explicit Cursor(std::span<const std::byte> range) : range_{range} {}

  [[nodiscard]] std::size_t position() const { return position_; }
  [[nodiscard]] std::size_t size() const { return range_.size(); }
  [[nodiscard]] std::size_t remaining() const { return range_.size() - position_; }
  [[nodiscard]] const std::byte* data() const { return range_.data(); }

  /// Throws std::out_of_range unless `count` bytes remain.
  void ensure_available(std::uint64_t count) const {
    if (count > remaining()) throw_read_beyond_end();
  }
  /// Copies `count` bytes; `destination` must not be null.
  void read(void* destination, std::size_t count) {
    if (destination == nullptr) throw_null_destination();
    ensure_available(count);
    if (count == 0) return;  // an empty range may begin at a null pointer
    std::memcpy(destination, range_.data() + position_, count);
    position_ += count;
  }
  template <class T>
  [[nodiscard]] T read(Byte_order order) {
    ensure_available(sizeof(T));
    const auto value = load<T>(range_.data() + position_, order);
    position_ += sizeof(T);
    return value;
  }
  /// `offset` counts from the start of the range; the end itself is a valid position.
  void seek(std::size_t offset) {
    if (offset > range_.size()) throw_seek_beyond_end();
    position_ = offset;
  }
  void skip(std::uint64_t count) {
    ensure_available(count);
    position_ += static_cast<std::size_t>(count);
  }

 private:
  std::span<const std::byte> range_;
  std::size_t position_ = 0;
};

/// Reads a length field of 1, 2 or 4 bytes.
[[nodiscard]] inline std::uint64_t read_length_field(std::uint64_t size,
                                                     Cursor& cursor,
                                                     const Serialization_settings& settings) {
  switch (size) {
    case 1:
      return cursor.read<std::uint8_t>(settings.byte_order);
    case 2:
      return cursor.read<std::uint16_t>(settings.byte_order);
    case 4:
      return cursor.read<std::uint32_t>(settings.byte_order);
    default:
      throw_invalid_length_field_size();
  }
}

/// True if a type may use wire type 4: that requires three equal, non-zero length field sizes
/// (PRS_SOMEIP_00215).
[[nodiscard]] bool has_configured_length(const Serialization_settings& settings);

/// Size of the length field behind a tag of this wire type, 0 for none. Throws for wire type 4 if
/// the type may not use it.
[[nodiscard]] std::uint64_t length_field_size(Wire_type wire_type,
                                              const Serialization_settings& settings);

/// Size of the member behind `tag`; reads its length field if there is one.
[[nodiscard]] std::uint64_t member_size(Cursor& cursor,
                                        std::uint16_t tag,
                                        const Serialization_settings& settings);

/// The length that stands for "no length field": the item extends to the end of the range.
inline constexpr std::uint64_t no_length = std::numeric_limits<std::uint64_t>::max();

/// The end of an item of `length` bytes at `offset` within a range of `size` bytes.
[[nodiscard]] inline std::size_t end_position(std::size_t offset,
                                              std::size_t size,
                                              std::uint64_t length) {
  if (length == no_length) return size;
  if (length > std::numeric_limits<std::uint64_t>::max() - offset) throw_offset_overflow();
  if (offset + length > size) throw_invalid_end_position();
  return offset + static_cast<std::size_t>(length);
}

/// Finishes an item with the announced end `end`. Throws if too much was consumed; skips a surplus.
inline void finish_item(Cursor& cursor, std::size_t end) {
  if (cursor.position() > end) throw_record_length_too_small();
  if (cursor.position() < end) cursor.skip(end - cursor.position());
}

}  // namespace binding
