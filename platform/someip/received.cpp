#include "platform/someip/received.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <vector>

namespace someip {

struct Buffer::Block {
  std::atomic<std::uint32_t> references{1};
  std::size_t size = 0;
  std::byte* bytes() { return reinterpret_cast<std::byte*>(this + 1); }
};

namespace {

/// Blocks of the usual size that nobody uses. Never destroyed: buffers may outlive every other
/// object.
class Free_list {
 public:
  static Free_list& instance() {
    static auto* list = new Free_list;
    return *list;
  }
  void* take() {
    const std::lock_guard lock(mutex_);
    if (blocks_.empty()) return nullptr;
    void* block = blocks_.back();
    blocks_.pop_back();
    return block;
  }
  bool keep(void* block) {
    const std::lock_guard lock(mutex_);
    if (blocks_.size() >= limit) return false;
    blocks_.push_back(block);
    return true;
  }

 private:
  static constexpr std::size_t limit = 64;
  Free_list() { blocks_.reserve(limit); }
  std::mutex mutex_;  ///< guards blocks_
  std::vector<void*> blocks_;
};

}  // namespace

Buffer::Buffer(std::size_t size) {
  const std::size_t capacity = std::max(size, usual_size);
  void* memory = capacity == usual_size ? Free_list::instance().take() : nullptr;
  if (memory == nullptr) memory = ::operator new(sizeof(Block) + capacity);
  block_ = new (memory) Block;
  block_->size = capacity;
}

Buffer Buffer::copy_of(Bytes bytes) {
  Buffer buffer(bytes.size());
  std::ranges::copy(bytes, buffer.data());
  return buffer;
}

std::byte* Buffer::data() const {
  return block_->bytes();
}
std::size_t Buffer::size() const {
  return block_ == nullptr ? 0 : block_->size;
}

bool Buffer::unique() const {
  // Acquire: what the others did with the bytes has happened before they are written again.
  return block_ != nullptr && block_->references.load(std::memory_order_acquire) == 1;
}

void Buffer::retain() noexcept {
  if (block_ != nullptr) block_->references.fetch_add(1, std::memory_order_relaxed);
}

void Buffer::release() noexcept {
  // Release, then acquire by the last one: it must see what the others read and wrote.
  if (block_ == nullptr || block_->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  const std::size_t size = block_->size;
  block_->~Block();
  if (size != usual_size || !Free_list::instance().keep(block_)) ::operator delete(block_);
}

}  // namespace someip
