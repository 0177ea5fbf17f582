/// A received message and the buffer that it lies in.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "platform/someip/wire/message.h"

namespace someip {

/// Reference-counted bytes. Those of the usual size come from, and return to, a list of the
/// process, so that receiving does not allocate.
class Buffer {
 public:
  static constexpr std::size_t usual_size = 2048;

  Buffer() = default;
  /// At least `size` bytes, not initialised.
  explicit Buffer(std::size_t size);
  Buffer(const Buffer& other) noexcept : block_(other.block_) { retain(); }
  Buffer(Buffer&& other) noexcept : block_(std::exchange(other.block_, nullptr)) {}
  Buffer& operator=(Buffer other) noexcept {
    std::swap(block_, other.block_);
    return *this;
  }
  ~Buffer() { release(); }

  [[nodiscard]] static Buffer copy_of(Bytes bytes);
  [[nodiscard]] std::byte* data() const { return reinterpret_cast<std::byte*>(block_ + 1); }
  [[nodiscard]] std::size_t size() const { return block_ == nullptr ? 0 : block_->size; }
  [[nodiscard]] bool empty() const { return block_ == nullptr; }
  /// Nobody else refers to the bytes.
  [[nodiscard]] bool unique() const {
    // Acquire: what the others did with the bytes has happened before they are written again.
    return block_ != nullptr && block_->references.load(std::memory_order_acquire) == 1;
  }

 private:
  /// In front of its bytes.
  struct Block {
    std::atomic<std::uint32_t> references{1};
    std::size_t size = 0;
  };
  void retain() noexcept {
    if (block_ != nullptr) block_->references.fetch_add(1, std::memory_order_relaxed);
  }
  void release() noexcept {
    // Release, then acquire by the last one: it must see what the others read and wrote.
    if (block_ == nullptr || block_->references.fetch_sub(1, std::memory_order_acq_rel) != 1)
      return;
    give_back();
  }
  void give_back() noexcept;
  Block* block_ = nullptr;
};

/// When the kernel received the datagram; its epoch where the kernel did not say.
using Arrival_time = std::chrono::sys_time<std::chrono::nanoseconds>;

/// Whether more than `limit` has passed since `arrival`, exact to a tick of the kernel. False for
/// an unknown arrival.
[[nodiscard]] bool is_older_than(Arrival_time arrival, std::chrono::nanoseconds limit);

struct Received {
  Header header;
  Bytes payload;  ///< inside `buffer`
  Buffer buffer;
  Arrival_time arrival = {};  ///< of its last datagram; unknown over TCP

  /// The same for keeping: a receiver's own, large buffer is not held for one message.
  [[nodiscard]] Received kept() const {
    if (buffer.size() <= Buffer::usual_size) return *this;
    Received copy{header, {}, Buffer::copy_of(payload), arrival};
    copy.payload = Bytes(copy.buffer.data(), payload.size());
    return copy;
  }
};

}  // namespace someip
