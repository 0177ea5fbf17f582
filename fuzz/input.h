/// What the fuzz targets share: the fuzzer's bytes taken apart into decisions, and broken promises.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <span>

namespace fuzz {

using Bytes = std::span<const std::byte>;

/// The input makes the code under test break a promise: the run ends and keeps the input.
inline void require(bool holds, const char* promise) {
  if (holds) return;
  std::fprintf(stderr, "broken promise: %s\n", promise);
  std::abort();
}

/// Bytes in memory of exactly their size: the sanitizer sees every read beyond them. Never null, as
/// in a receive buffer.
class Exact {
 public:
  explicit Exact(Bytes bytes)
      : size_(bytes.size()), memory_(std::make_unique<std::byte[]>(bytes.size())) {
    std::ranges::copy(bytes, memory_.get());
  }
  operator Bytes() const { return {memory_.get(), size_}; }

 private:
  std::size_t size_;
  std::unique_ptr<std::byte[]> memory_;
};

/// Takes decisions off the front of the fuzzer's bytes, so that a seed can be written by hand. Past
/// the end every number is 0.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : rest_(std::as_bytes(std::span(data, size))) {}

  [[nodiscard]] bool empty() const { return rest_.empty(); }
  [[nodiscard]] std::uint8_t u8() {
    if (rest_.empty()) return 0;
    const auto value = std::to_integer<std::uint8_t>(rest_.front());
    rest_ = rest_.subspan(1);
    return value;
  }
  [[nodiscard]] std::uint16_t u16() {
    const unsigned high = u8();
    return static_cast<std::uint16_t>(high << 8U | u8());
  }
  [[nodiscard]] std::uint32_t u32() {
    const std::uint32_t high = u16();
    return high << 16U | u16();
  }
  [[nodiscard]] bool flag() { return (u8() & 1U) != 0; }
  /// At most `count` bytes: as many as there are.
  [[nodiscard]] Bytes bytes(std::size_t count) {
    const auto taken = rest_.first(std::min(count, rest_.size()));
    rest_ = rest_.subspan(taken.size());
    return taken;
  }
  [[nodiscard]] Bytes rest() { return bytes(rest_.size()); }

  template <class T, std::size_t Count>
  [[nodiscard]] const T& pick(const std::array<T, Count>& choices) {
    static_assert(Count <= 256);
    return choices[u8() % Count];
  }
  /// One of the usual values, or, now and then, any.
  template <std::size_t Count>
  [[nodiscard]] std::uint16_t usual_or_any(const std::array<std::uint16_t, Count>& usual) {
    const auto choice = u8();
    return choice >= 0xF0 ? u16() : usual[choice % Count];
  }

 private:
  Bytes rest_;
};

}  // namespace fuzz
