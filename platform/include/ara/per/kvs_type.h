/// A value of the key-value storage, with its type and the status of the read that returned it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "ara/per/exceptions.h"

namespace ara::per {

class KvsType {
 public:
  enum class Type : std::uint8_t {
    kNotSupported = 0,  ///< no value
    kFloat = 1,
    kDouble = 2,
    kSInt8 = 3,
    kSInt16 = 4,
    kSInt32 = 5,
    kSInt64 = 6,
    kUInt8 = 7,
    kUInt16 = 8,
    kUInt32 = 9,
    kUInt64 = 10,
    kString = 11,
    kBinary = 12,
    kBoolean = 13,
  };
  enum class Status : std::uint8_t {
    kSuccess = 0,
    kNotFound = 1,      ///< the storage has no such key
    kGeneralError = 2,  ///< no value was ever set
  };

  /// No value: kNotSupported, kGeneralError.
  KvsType() = default;
  /// No value, for the given reason.
  explicit KvsType(Status status) : status_(status) {}

  explicit KvsType(bool value) : KvsType(Value(value)) {}
  explicit KvsType(std::int8_t value) : KvsType(Value(value)) {}
  explicit KvsType(std::int16_t value) : KvsType(Value(value)) {}
  explicit KvsType(std::int32_t value) : KvsType(Value(value)) {}
  explicit KvsType(std::int64_t value) : KvsType(Value(value)) {}
  explicit KvsType(std::uint8_t value) : KvsType(Value(value)) {}
  explicit KvsType(std::uint16_t value) : KvsType(Value(value)) {}
  explicit KvsType(std::uint32_t value) : KvsType(Value(value)) {}
  explicit KvsType(std::uint64_t value) : KvsType(Value(value)) {}
  explicit KvsType(float value) : KvsType(Value(value)) {}
  explicit KvsType(double value) : KvsType(Value(value)) {}
  explicit KvsType(std::string value) : KvsType(Value(std::move(value))) {}
  explicit KvsType(std::string_view value) : KvsType(std::string(value)) {}
  explicit KvsType(const char* value) : KvsType(std::string(value)) {}
  /// Binary: copies `size` bytes; `data` may be null when `size` is 0.
  KvsType(const std::uint8_t* data, std::size_t size);
  explicit KvsType(std::vector<std::uint8_t> binary) : KvsType(Value(std::move(binary))) {}

  [[nodiscard]] Type GetType() const noexcept;
  [[nodiscard]] Status GetStatus() const noexcept { return status_; }

  // Each getter throws ExceptionLogicError, with both types in its text, if the value has another
  // type.
  [[nodiscard]] bool GetBool() const;
  [[nodiscard]] std::int32_t GetSInt() const;  ///< kSInt8, kSInt16, kSInt32
  [[nodiscard]] std::int64_t GetSInt64() const;
  [[nodiscard]] std::uint32_t GetUInt() const;  ///< kUInt8, kUInt16, kUInt32
  [[nodiscard]] std::uint64_t GetUInt64() const;
  [[nodiscard]] float GetFloat() const;
  [[nodiscard]] double GetDouble() const;
  [[nodiscard]] const std::string& GetString() const;
  [[nodiscard]] const std::vector<std::uint8_t>& GetBinary() const;
  /// Copies the binary value to the front of `buffer` and returns its byte count. The rest of the
  /// buffer stays as it is. Throws ExceptionLogicError if the value is larger than `size`.
  std::size_t GetBinary(std::uint8_t* buffer, std::size_t size) const;

  /// Equal types and values; NaN is not equal to itself. The status counts only if there is no
  /// value.
  friend bool operator==(const KvsType&, const KvsType&) = default;

 private:
  /// In the order of Type.
  using Value = std::variant<std::monostate,
                             float,
                             double,
                             std::int8_t,
                             std::int16_t,
                             std::int32_t,
                             std::int64_t,
                             std::uint8_t,
                             std::uint16_t,
                             std::uint32_t,
                             std::uint64_t,
                             std::string,
                             std::vector<std::uint8_t>,
                             bool>;
  explicit KvsType(Value value) : value_(std::move(value)), status_(Status::kSuccess) {}
  template <typename T>
  const T& As(std::string_view wanted) const;

  Value value_;
  Status status_ = Status::kGeneralError;
};

/// The name in a storage file, such as "UInt32"; "none" for kNotSupported.
[[nodiscard]] std::string_view NameOf(KvsType::Type type);

}  // namespace ara::per
