#include "platform/linux/log/arguments.h"

#include <array>
#include <charconv>
#include <cstdio>

namespace ara::log {
namespace {

template <typename T>
void AppendInteger(std::string& text, T value) {
  std::array<char, 24> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
  text.append(digits.data(), end);
}

void AppendFloating(std::string& text, double value) {
  std::array<char, 32> digits;
  const int length = std::snprintf(digits.data(), digits.size(), "%g", value);
  text.append(digits.data(), static_cast<std::size_t>(length));
}

}  // namespace

std::int64_t Argument::AsSigned() const {
  switch (bytes.size()) {
    case 1:
      return As<std::int8_t>();
    case 2:
      return As<std::int16_t>();
    case 4:
      return As<std::int32_t>();
    default:
      return As<std::int64_t>();
  }
}

std::uint64_t Argument::AsUnsigned() const {
  switch (bytes.size()) {
    case 1:
      return As<std::uint8_t>();
    case 2:
      return As<std::uint16_t>();
    case 4:
      return As<std::uint32_t>();
    default:
      return As<std::uint64_t>();
  }
}

void Argument::AppendText(std::string& text) const {
  switch (type) {
    case ArgumentType::kBool:
      text += bytes.front() != 0 ? '1' : '0';
      break;
    case ArgumentType::kSigned:
      AppendInteger(text, AsSigned());
      break;
    case ArgumentType::kUnsigned:
      AppendInteger(text, AsUnsigned());
      break;
    case ArgumentType::kFloat:
      AppendFloating(text, static_cast<double>(As<float>()));
      break;
    case ArgumentType::kDouble:
      AppendFloating(text, As<double>());
      break;
    case ArgumentType::kText:
      text += bytes;
      break;
  }
}

Argument Arguments::Next() {
  std::uint32_t size = 0;
  std::memcpy(&size, rest_.data() + 1, sizeof size);
  const Argument argument{static_cast<ArgumentType>(rest_.front()),
                          rest_.substr(kArgumentHeaderSize, size)};
  rest_.remove_prefix(kArgumentHeaderSize + size);
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

void EncodeArgument(char* out, ArgumentType type, const void* data, std::size_t size) {
  const auto size32 = static_cast<std::uint32_t>(size);
  out[0] = static_cast<char>(type);
  std::memcpy(out + 1, &size32, sizeof size32);
  if (size != 0) std::memcpy(out + kArgumentHeaderSize, data, size);
}

}  // namespace ara::log
