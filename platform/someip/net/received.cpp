#include "platform/someip/net/received.h"

#include <time.h>

#include <algorithm>
#include <mutex>
#include <new>
#include <vector>

namespace someip {

namespace {

/// Free blocks of the usual size. Never destroyed: buffers may outlive every other object.
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

bool is_older_than(Arrival_time arrival, std::chrono::nanoseconds limit) {
  if (arrival == Arrival_time{}) return false;
  timespec now{};
  // Called for each notification: the coarse clock costs a third of the exact one.
  ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
  const auto age = std::chrono::seconds{now.tv_sec} + std::chrono::nanoseconds{now.tv_nsec} -
                   arrival.time_since_epoch();
  return age > limit;
}

void Buffer::give_back() noexcept {
  const std::size_t size = block_->size;
  block_->~Block();
  if (size != usual_size || !Free_list::instance().keep(block_)) ::operator delete(block_);
}

}  // namespace someip
