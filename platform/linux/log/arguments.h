/// The arguments of one message between the LogStream that collects them and the sinks that write
/// them: a run of (type, size, bytes), numbers in the machine's own byte order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace ara::log {

enum class ArgumentType : std::uint8_t {
  kBool,
  kSigned,    ///< 1, 2, 4 or 8 bytes
  kUnsigned,  ///< 1, 2, 4 or 8 bytes
  kFloat,
  kDouble,
  kText,
};

struct Argument {
  ArgumentType type;
  std::string_view bytes;

  template <typename T>
  [[nodiscard]] T As() const {
    T value{};
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
  }
  [[nodiscard]] std::int64_t AsSigned() const;
  [[nodiscard]] std::uint64_t AsUnsigned() const;
  /// As dlt-receive prints it.
  void AppendText(std::string& text) const;
};

/// What precedes each argument's bytes: its type (1 byte) and size (4 bytes).
inline constexpr std::size_t kArgumentHeaderSize = 5;

/// Reads the run from front to end.
class Arguments {
 public:
  explicit Arguments(std::string_view encoded) : rest_(encoded) {}

  [[nodiscard]] bool empty() const { return rest_.empty(); }
  Argument Next();
  /// All that is left, joined by one blank.
  [[nodiscard]] std::string Text() const;

 private:
  std::string_view rest_;
};

/// `out` has room for kArgumentHeaderSize + `size` bytes.
void EncodeArgument(char* out, ArgumentType type, const void* data, std::size_t size);

}  // namespace ara::log
