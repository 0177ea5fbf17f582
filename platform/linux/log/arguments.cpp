#include "platform/linux/log/arguments.h"

#include <array>
#include <charconv>
#include <cstdio>

namespace ara::log {
namespace {

constexpr std::uint32_t width = 0xf;
constexpr std::uint32_t integer = static_cast<std::uint32_t>(Argument_type::signed_integer) |
                                  static_cast<std::uint32_t>(Argument_type::unsigned_integer);

template <typename T>
T read(std::string_view bytes) {
  T value{};
  std::memcpy(&value, bytes.data(), sizeof value);
  return value;
}

template <typename T>
void append_integer(std::string& text, std::string_view bytes) {
  std::array<char, 24> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), read<T>(bytes)).ptr;
  text.append(digits.data(), end);
}

template <typename Byte, typename Short, typename Word, typename Long>
void append_integer(std::string& text, std::string_view bytes) {
  switch (bytes.size()) {
    case 1:
      return append_integer<Byte>(text, bytes);
    case 2:
      return append_integer<Short>(text, bytes);
    case 4:
      return append_integer<Word>(text, bytes);
    default:
      return append_integer<Long>(text, bytes);
  }
}

void append_floating(std::string& text, double value) {
  std::array<char, 32> digits;
  const int length = std::snprintf(digits.data(), digits.size(), "%g", value);
  text.append(digits.data(), static_cast<std::size_t>(length));
}

}  // namespace

void Argument::append_text(std::string& text) const {
  switch (type) {
    case Argument_type::boolean:
      text += value.front() != 0 ? '1' : '0';
      break;
    case Argument_type::signed_integer:
      append_integer<std::int8_t, std::int16_t, std::int32_t, std::int64_t>(text, value);
      break;
    case Argument_type::unsigned_integer:
      append_integer<std::uint8_t, std::uint16_t, std::uint32_t, std::uint64_t>(text, value);
      break;
    case Argument_type::float32:
      append_floating(text, static_cast<double>(read<float>(value)));
      break;
    case Argument_type::float64:
      append_floating(text, read<double>(value));
      break;
    case Argument_type::text:
      text += value;
      break;
  }
}

Argument Arguments::next() {
  const auto type = read<std::uint32_t>(rest_);
  Argument argument{static_cast<Argument_type>(type), {}};
  if (argument.type == Argument_type::text) {
    const auto length = read<std::uint16_t>(rest_.substr(number_overhead));
    argument.value = rest_.substr(text_overhead - 1, length - 1U);
  } else {
    argument.value = rest_.substr(number_overhead, std::size_t{1} << ((type & width) - 1));
    if ((type & integer) != 0) argument.type = static_cast<Argument_type>(type & ~width);
  }
  rest_.remove_prefix(argument.encoded_size());
  --count_;
  return argument;
}

std::string Arguments::text() const {
  std::string text;
  for (Arguments rest = *this; !rest.empty();) {
    rest.next().append_text(text);
    if (!rest.empty()) text += ' ';
  }
  return text;
}

}  // namespace ara::log
