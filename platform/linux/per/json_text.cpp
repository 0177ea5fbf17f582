#include "platform/linux/per/json_text.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>
#include <variant>

#include "ara/per/exceptions.h"

namespace ara::per {
namespace {

using nlohmann::json;

/// A JSON value whose storage type is not yet known.
using Raw = std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::string>;

constexpr std::string_view hex_digits = "0123456789abcdef";

std::string hex(const std::vector<std::uint8_t>& bytes) {
  std::string text;
  text.reserve(2 * bytes.size());
  for (const std::uint8_t byte : bytes) {
    text += hex_digits[byte >> 4U];
    text += hex_digits[byte & 15U];
  }
  return text;
}

std::optional<std::vector<std::uint8_t>> from_hex(const std::string& text) {
  if (text.size() % 2 != 0) return std::nullopt;
  std::vector<std::uint8_t> bytes(text.size() / 2);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const char* begin = text.data() + 2 * i;
    if (std::from_chars(begin, begin + 2, bytes[i], 16).ptr != begin + 2) return std::nullopt;
  }
  return bytes;
}

template <typename T>
std::optional<KvsType> as_integer(const Raw& raw) {
  if (const auto* value = std::get_if<std::uint64_t>(&raw);
      value != nullptr && std::in_range<T>(*value)) {
    return KvsType(static_cast<T>(*value));
  }
  if (const auto* value = std::get_if<std::int64_t>(&raw);
      value != nullptr && std::in_range<T>(*value)) {
    return KvsType(static_cast<T>(*value));
  }
  return std::nullopt;
}

template <typename T>
std::optional<KvsType> as_floating(const Raw& raw) {
  if (const auto* value = std::get_if<double>(&raw)) {
    if (std::abs(*value) > static_cast<double>(std::numeric_limits<T>::max())) return std::nullopt;
    return KvsType(static_cast<T>(*value));
  }
  if (const auto* value = std::get_if<std::uint64_t>(&raw)) return KvsType(static_cast<T>(*value));
  if (const auto* value = std::get_if<std::int64_t>(&raw)) return KvsType(static_cast<T>(*value));
  if (const auto* text = std::get_if<std::string>(&raw)) {
    if (*text == "NaN") return KvsType(std::numeric_limits<T>::quiet_NaN());
    if (*text == "Infinity") return KvsType(std::numeric_limits<T>::infinity());
    if (*text == "-Infinity") return KvsType(-std::numeric_limits<T>::infinity());
  }
  return std::nullopt;
}

std::optional<KvsType> as_boolean(const Raw& raw) {
  const auto* value = std::get_if<bool>(&raw);
  return value != nullptr ? std::optional(KvsType(*value)) : std::nullopt;
}

std::optional<KvsType> as_text(const Raw& raw) {
  const auto* value = std::get_if<std::string>(&raw);
  return value != nullptr ? std::optional(KvsType(*value)) : std::nullopt;
}

std::optional<KvsType> as_binary(const Raw& raw) {
  const auto* value = std::get_if<std::string>(&raw);
  auto bytes = value != nullptr ? from_hex(*value) : std::nullopt;
  return bytes ? std::optional(KvsType(std::move(*bytes))) : std::nullopt;
}

struct Reader {
  KvsType::Type type;
  const char* expected;
  std::optional<KvsType> (*read)(const Raw&);
};

using Type = KvsType::Type;
constexpr std::array readers{
    Reader{Type::kBoolean, "true or false", &as_boolean},
    Reader{Type::kUInt8, "an integer from 0 to 255", &as_integer<std::uint8_t>},
    Reader{Type::kUInt16, "an integer from 0 to 65535", &as_integer<std::uint16_t>},
    Reader{Type::kUInt32, "an integer from 0 to 4294967295", &as_integer<std::uint32_t>},
    Reader{Type::kUInt64, "an integer from 0 to 18446744073709551615", &as_integer<std::uint64_t>},
    Reader{Type::kSInt8, "an integer from -128 to 127", &as_integer<std::int8_t>},
    Reader{Type::kSInt16, "an integer from -32768 to 32767", &as_integer<std::int16_t>},
    Reader{Type::kSInt32, "an integer from -2147483648 to 2147483647", &as_integer<std::int32_t>},
    Reader{Type::kSInt64, "an integer from -9223372036854775808 to 9223372036854775807",
           &as_integer<std::int64_t>},
    Reader{Type::kFloat, R"(a number that a float can hold, "NaN", "Infinity" or "-Infinity")",
           &as_floating<float>},
    Reader{Type::kDouble, R"(a number, "NaN", "Infinity" or "-Infinity")", &as_floating<double>},
    Reader{Type::kString, "a text", &as_text},
    Reader{Type::kBinary, "a text of pairs of hexadecimal digits", &as_binary},
};

/// Receives the parser's events and refuses the first one that a store cannot contain.
class Builder {
 public:
  Builder(const std::string& path, Values& values) : path_(path), values_(values) {}

  bool null() { return scalar(std::monostate{}, "null"); }
  bool boolean(bool value) { return scalar(value, "true or false"); }
  bool number_integer(std::int64_t value) { return scalar(value, "a number"); }
  bool number_unsigned(std::uint64_t value) { return scalar(value, "a number"); }
  bool number_float(double value, const std::string& /*text*/) { return scalar(value, "a number"); }
  bool string(std::string& value) { return scalar(std::move(value), "a text"); }
  bool binary(std::vector<std::uint8_t>& /*value*/) { return false; }  // not a JSON text event
  bool start_array(std::size_t /*size*/) { refuse("an array"); }
  bool end_array() { return false; }

  bool start_object(std::size_t /*size*/) {
    if (depth_ == 2) refuse("an object");
    if (++depth_ == 2) {
      type_.reset();
      value_.reset();
    }
    return true;
  }

  bool key(std::string& name) {
    if (depth_ == 1) {
      if (values_.contains(name)) fail(name, "is there twice");
      key_ = std::move(name);
    } else {
      if (name != "type" && name != "value")
        fail(key_, "has a member \"" + shortened(name) + R"(", expected "type" and "value" only)");
      member_is_type_ = name == "type";
      if (member_is_type_ ? type_.has_value() : value_.has_value())
        fail(key_, "has its \"" + name + "\" twice");
    }
    return true;
  }

  bool end_object() {
    if (--depth_ == 1) {
      if (!type_) fail(key_, R"(has no "type")");
      if (!value_) fail(key_, R"(has no "value")");
      values_.emplace(key_, convert());
    }
    return true;
  }

  bool parse_error(std::size_t /*position*/,
                   const std::string& /*token*/,
                   const json::exception& error) {
    if (dynamic_cast<const json::out_of_range*>(&error) != nullptr && depth_ == 2) {
      fail(key_, "has a number that no type can hold");
    }
    // "[json.exception.parse_error.101] parse error at line 1, column 2: …"
    std::string_view text = error.what();
    if (const auto end = text.find("] "); end != std::string_view::npos)
      text.remove_prefix(end + 2);
    throw ExceptionValidation("storage file \"" + path_ + "\": " + shortened(text));
  }

 private:
  static std::string shortened(std::string_view text) {
    constexpr std::size_t max_shown = 300;
    return text.size() <= max_shown ? std::string(text)
                                    : std::string(text.substr(0, max_shown)) + "...";
  }
  [[noreturn]] void fail(std::string_view key, const std::string& reason) const {
    throw ExceptionValidation("storage file \"" + path_ + "\": key \"" + shortened(key) + "\" " +
                              reason);
  }
  [[noreturn]] void refuse(const std::string& found) const {
    if (depth_ == 0) {
      throw ExceptionValidation("storage file \"" + path_ +
                                "\": expected an object with one entry per key, found " + found);
    }
    if (depth_ == 1) fail(key_, R"(is not an object with "type" and "value" but )" + found);
    fail(key_,
         std::string("has ") + (member_is_type_ ? R"(as "type" )" : R"(as "value" )") + found);
  }

  bool scalar(Raw value, const char* found) {
    if (depth_ < 2) refuse(found);
    if (!member_is_type_) {
      value_ = std::move(value);
      return true;
    }
    const auto* name = std::get_if<std::string>(&value);
    if (name == nullptr) refuse(found);
    for (const Reader& reader : readers) {
      if (NameOf(reader.type) == *name) type_ = &reader;
    }
    if (!type_) {
      std::string names;
      for (const Reader& reader : readers) {
        names.append(names.empty() ? "" : ", ").append(NameOf(reader.type));
      }
      fail(key_, "has the unknown type \"" + shortened(*name) + "\", expected one of " + names);
    }
    return true;
  }

  KvsType convert() const {
    const Reader& reader = **type_;
    auto converted = reader.read(*value_);
    if (!converted) {
      fail(key_,
           "of type " + std::string(NameOf(reader.type)) + " needs as value " + reader.expected);
    }
    return std::move(*converted);
  }

  const std::string& path_;
  Values& values_;
  int depth_ = 0;
  std::string key_;
  bool member_is_type_ = false;
  std::optional<const Reader*> type_;
  std::optional<Raw> value_;
};

std::string quoted(const std::string& text) {
  return json(text).dump();
}

template <typename T>
std::string floating_text(T value) {
  if (std::isnan(value)) return "\"NaN\"";
  if (std::isinf(value)) return value > 0 ? "\"Infinity\"" : "\"-Infinity\"";
  return json(value).dump();
}

std::string value_text(const KvsType& value) {
  switch (value.GetType()) {
    case Type::kBoolean:
      return value.GetBool() ? "true" : "false";
    case Type::kUInt8:
    case Type::kUInt16:
    case Type::kUInt32:
      return std::to_string(value.GetUInt());
    case Type::kUInt64:
      return std::to_string(value.GetUInt64());
    case Type::kSInt8:
    case Type::kSInt16:
    case Type::kSInt32:
      return std::to_string(value.GetSInt());
    case Type::kSInt64:
      return std::to_string(value.GetSInt64());
    case Type::kFloat:
      return floating_text(value.GetFloat());
    case Type::kDouble:
      return floating_text(value.GetDouble());
    case Type::kString:
      return quoted(value.GetString());
    case Type::kBinary:
      return '"' + hex(value.GetBinary()) + '"';
    case Type::kNotSupported:
      break;
  }
  throw ExceptionLogicError("storage: a value without type cannot be stored");
}

}  // namespace

Values parse_values(std::string_view text, const std::string& path) {
  Values values;
  Builder builder(path, values);
  json::sax_parse(text, &builder);
  return values;
}

std::string to_text(const Values& values) {
  std::string text = "{";
  const char* separator = "\n";
  for (const auto& [key, value] : values) {
    text.append(separator).append("  ").append(quoted(key)).append(": {\"type\": \"");
    text.append(NameOf(value.GetType()))
        .append("\", \"value\": ")
        .append(value_text(value))
        .append("}");
    separator = ",\n";
  }
  return text.append("\n}\n");
}

bool is_utf8(const std::string& text) {
  try {
    (void)quoted(text);
    return true;
  } catch (const json::type_error&) {
    return false;
  }
}

}  // namespace ara::per
