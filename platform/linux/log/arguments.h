/// The arguments of one message, between the LogStream that collects them and the sinks that write
/// them. They follow each other as in a DLT message, so that sending needs no second copy. An
/// argument begins with its type (4 bytes). The bytes of a number follow; or a text's length (2
/// bytes, closing zero included), the text and a closing zero. All numbers are in the machine's
/// byte order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace ara::log {

/// DLT's type information. In a message, the type of a signed or unsigned number also holds its
/// width.
enum class Argument_type : std::uint32_t {
  boolean = 0x11,
  signed_integer = 0x20,
  unsigned_integer = 0x40,
  float32 = 0x83,
  float64 = 0x84,
  text = 0x8200,  ///< UTF-8
};

/// The type information of an integer of `size` (1, 2, 4 or 8) bytes.
constexpr Argument_type of_size(Argument_type type, std::size_t size) {
  const std::uint32_t width = size == 8 ? 4 : size == 4 ? 3 : static_cast<std::uint32_t>(size);
  return static_cast<Argument_type>(static_cast<std::uint32_t>(type) | width);
}

/// Bytes of an argument beside those of its value.
inline constexpr std::size_t number_overhead = 4;
inline constexpr std::size_t text_overhead = 4 + 2 + 1;

struct Argument {
  Argument_type type;  ///< integers: without their width
  std::string_view value;

  [[nodiscard]] std::size_t encoded_size() const {
    return value.size() + (type == Argument_type::text ? text_overhead : number_overhead);
  }
  /// Appends the value as dlt-receive prints it.
  void append_text(std::string& text) const;
};

/// Reads the arguments from front to end.
class Arguments {
 public:
  Arguments(std::string_view encoded, std::size_t count) : rest_(encoded), count_(count) {}

  [[nodiscard]] bool empty() const { return count_ == 0; }
  /// The unread arguments, and their number.
  [[nodiscard]] std::string_view encoded() const { return rest_; }
  [[nodiscard]] std::size_t count() const { return count_; }
  Argument next();
  /// The unread arguments as text, joined by one blank.
  [[nodiscard]] std::string text() const;

 private:
  std::string_view rest_;
  std::size_t count_;
};

/// `out` has room for number_overhead + `size` bytes.
inline void encode_number(char* out, Argument_type type, const void* value, std::size_t size) {
  std::memcpy(out, &type, sizeof type);
  std::memcpy(out + sizeof type, value, size);
}

/// `out` has room for text_overhead + `text.size()` bytes; the text is shorter than 65535 bytes.
inline void encode_text(char* out, std::string_view text) {
  constexpr auto argument_type = Argument_type::text;
  const auto length = static_cast<std::uint16_t>(text.size() + 1);
  std::memcpy(out, &argument_type, sizeof argument_type);
  std::memcpy(out + sizeof argument_type, &length, sizeof length);
  out += sizeof argument_type + sizeof length;
  if (!text.empty()) std::memcpy(out, text.data(), text.size());
  out[text.size()] = '\0';
}

}  // namespace ara::log
