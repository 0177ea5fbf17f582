#include "ara/per/kvs_type.h"

#include <array>
#include <cstring>

namespace ara::per {

namespace {

constexpr std::array<std::string_view, 14> names{"none",   "Float",  "Double", "SInt8",  "SInt16",
                                                 "SInt32", "SInt64", "UInt8",  "UInt16", "UInt32",
                                                 "UInt64", "String", "Binary", "Boolean"};

}  // namespace

std::string_view NameOf(KvsType::Type type) {
  const auto index = static_cast<std::size_t>(type);
  return index < names.size() ? names[index] : std::string_view("unknown");
}

KvsType::KvsType(const std::uint8_t* data, std::size_t size)
    : KvsType(size != 0 ? std::vector<std::uint8_t>(data, data + size)
                        : std::vector<std::uint8_t>()) {}

KvsType::Type KvsType::GetType() const noexcept {
  static_assert(std::variant_size_v<Value> == names.size());
  return static_cast<Type>(value_.index());
}

template <typename T>
const T& KvsType::As(std::string_view wanted) const {
  if (const T* value = std::get_if<T>(&value_)) return *value;
  throw ExceptionLogicError("value of type " + std::string(NameOf(GetType())) + " was read as " +
                            std::string(wanted));
}

bool KvsType::GetBool() const {
  return As<bool>("Boolean");
}

std::int32_t KvsType::GetSInt() const {
  if (const auto* value = std::get_if<std::int8_t>(&value_)) return *value;
  if (const auto* value = std::get_if<std::int16_t>(&value_)) return *value;
  return As<std::int32_t>("SInt8, SInt16 or SInt32");
}

std::int64_t KvsType::GetSInt64() const {
  return As<std::int64_t>("SInt64");
}

std::uint32_t KvsType::GetUInt() const {
  if (const auto* value = std::get_if<std::uint8_t>(&value_)) return *value;
  if (const auto* value = std::get_if<std::uint16_t>(&value_)) return *value;
  return As<std::uint32_t>("UInt8, UInt16 or UInt32");
}

std::uint64_t KvsType::GetUInt64() const {
  return As<std::uint64_t>("UInt64");
}
float KvsType::GetFloat() const {
  return As<float>("Float");
}
double KvsType::GetDouble() const {
  return As<double>("Double");
}
const std::string& KvsType::GetString() const {
  return As<std::string>("String");
}
const std::vector<std::uint8_t>& KvsType::GetBinary() const {
  return As<std::vector<std::uint8_t>>("Binary");
}

std::size_t KvsType::GetBinary(std::uint8_t* buffer, std::size_t size) const {
  const auto& bytes = GetBinary();
  if (bytes.size() > size) {
    throw ExceptionLogicError("binary value of " + std::to_string(bytes.size()) +
                              " bytes was read into a buffer of " + std::to_string(size));
  }
  if (!bytes.empty()) std::memcpy(buffer, bytes.data(), bytes.size());
  return bytes.size();
}

}  // namespace ara::per
