#include "platform/linux/log/arguments.h"

#include <array>
#include <charconv>
#include <cstdio>

namespace ara::log {
namespace {

constexpr std::uint32_t width = 0xf;
constexpr std::uint32_t integer = static_cast<std::uint32_t>(ArgumentType::signed_integer) |
                                  static_cast<std::uint32_t>(ArgumentType::unsigned_integer);

template <typename T>
T Read(std::string_view bytes) {
  T value{};
  std::memcpy(&value, bytes.data(), sizeof value);
  return value;
}

template <typename T>
void AppendInteger(std::string& text, std::string_view bytes) {
  std::array<char, 24> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), Read<T>(bytes)).ptr;
  text.append(digits.data(), end);
}

template <typename Byte, typename Short, typename Word, typename Long>
void AppendInteger(std::string& text, std::string_view bytes) {
  switch (bytes.size()) {
    case 1:
      return AppendInteger<Byte>(text, bytes);
    case 2:
      return AppendInteger<Short>(text, bytes);
    case 4:
      return AppendInteger<Word>(text, bytes);
    default:
      return AppendInteger<Long>(text, bytes);
  }
}

void AppendFloating(std::string& text, double value) {
  std::array<char, 32> digits;
  const int length = std::snprintf(digits.data(), digits.size(), "%g", value);
  text.append(digits.data(), static_cast<std::size_t>(length));
}

}  // namespace

void Argument::AppendText(std::string& text) const {
  switch (type) {
    case ArgumentType::boolean:
      text += value.front() != 0 ? '1' : '0';
      break;
    case ArgumentType::signed_integer:
      AppendInteger<std::int8_t, std::int16_t, std::int32_t, std::int64_t>(text, value);
      break;
    case ArgumentType::unsigned_integer:
      AppendInteger<std::uint8_t, std::uint16_t, std::uint32_t, std::uint64_t>(text, value);
      break;
    case ArgumentType::float32:
      AppendFloating(text, static_cast<double>(Read<float>(value)));
      break;
    case ArgumentType::float64:
      AppendFloating(text, Read<double>(value));
      break;
    case ArgumentType::text:
      text += value;
      break;
  }
}

Argument Arguments::Next() {
  const auto type = Read<std::uint32_t>(rest_);
  Argument argument{static_cast<ArgumentType>(type), {}};
  if (argument.type == ArgumentType::text) {
    const auto length = Read<std::uint16_t>(rest_.substr(number_overhead));
    argument.value = rest_.substr(text_overhead - 1, length - 1U);
  } else {
    argument.value = rest_.substr(number_overhead, std::size_t{1} << ((type & width) - 1));
    if ((type & integer) != 0) argument.type = static_cast<ArgumentType>(type & ~width);
  }
  rest_.remove_prefix(argument.EncodedSize());
  --count_;
  return argument;
}

std::string Arguments::Text() const {
  std::string text;
  for (Arguments rest = *this; !rest.empty();) {
    rest.Next().AppendText(text);
    if (!rest.empty()) text += ' ';
  }
  return text;
}

}  // namespace ara::log
