/// A received message and its buffer.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "mw/com/arrival.h"
#include "platform/someip/wire/message.h"

namespace someip {

/// Reference-counted bytes. Blocks of the usual size are recycled in a list of the process, so that
/// receiving does not allocate.
class Buffer {
 public:
  static constexpr std::size_t usual_size = 2048;

  Buffer() = default;
  /// At least `size` uninitialised bytes.
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
  /// True if no other buffer refers to the bytes.
  [[nodiscard]] bool unique() const {
    // Acquire: every access by other owners happens before the bytes are written again.
    return block_ != nullptr && block_->references.load(std::memory_order_acquire) == 1;
  }

 private:
  /// Stands in front of its bytes.
  struct Block {
    std::atomic<std::uint32_t> references{1};
    std::size_t size = 0;
  };
  void retain() noexcept {
    if (block_ != nullptr) block_->references.fetch_add(1, std::memory_order_relaxed);
  }
  void release() noexcept {
    // Release, then acquire by the last owner, who must see all reads and writes of the others.
    if (block_ == nullptr || block_->references.fetch_sub(1, std::memory_order_acq_rel) != 1)
      return;
    give_back();
  }
  void give_back() noexcept;
  Block* block_ = nullptr;
};

/// The time at which the kernel received the datagram; its epoch if the kernel gave none.
using mw::com::Arrival_time;

/// True if more than `limit` has passed since `arrival`, exact to a tick of the kernel. False for
/// an unknown arrival.
[[nodiscard]] bool is_older_than(Arrival_time arrival, std::chrono::nanoseconds limit);

struct Received {
  Header header;
  Bytes payload;  ///< inside `buffer`
  Buffer buffer;
  Arrival_time arrival = {};  ///< of the last datagram; unknown over TCP

  /// The same message for keeping: does not hold a receiver's own, large buffer.
  [[nodiscard]] Received kept() const {
    if (buffer.size() <= Buffer::usual_size) return *this;
    Received copy{header, {}, Buffer::copy_of(payload), arrival};
    copy.payload = Bytes(copy.buffer.data(), payload.size());
    return copy;
  }
};

}  // namespace someip
