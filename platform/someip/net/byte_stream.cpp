#include "platform/someip/net/byte_stream.h"

#include <fcntl.h>

#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <utility>

namespace someip {

using boost::system::error_code;

void close_in_children(int descriptor) {
  static_cast<void>(::fcntl(descriptor, F_SETFD, FD_CLOEXEC));
}

Byte_stream::Byte_stream(Socket socket, const Limits& limits, Workers& workers, Counters& counters)
    : limits_(limits), workers_(workers), counters_(counters), socket_(std::move(socket)) {
  close_in_children(socket_.native_handle());
}

void Byte_stream::close() {
  open_ = false;
  {
    const std::lock_guard lock(mutex_);
    dead_ = true;
    queue_.clear();
  }
  error_code ignored;
  socket_.close(ignored);
}

void Byte_stream::finish() {
  finishing_ = true;
  bool all_sent = false;
  {
    const std::lock_guard lock(mutex_);
    dead_ = true;
    all_sent = !busy_;
  }
  if (all_sent) end_stream();
}

void Byte_stream::end_stream() {
  // Not a close: unread data would turn the close into a reset, which can overtake sent data.
  error_code ignored;
  socket_.shutdown(Socket::shutdown_send, ignored);
}

void Byte_stream::fail(const char* why, End end) {
  if (!open_) return;
  close();
  ended(why, finishing_ ? End::finished : end);
}

void Byte_stream::receive() {
  socket_.async_read_some(
      boost::asio::buffer(buffer_),
      [this, self = shared_from_this()](const error_code& error, std::size_t size) {
        if (!open_) return;
        if (error) {
          fail(error.message().c_str(), End::lost);
          return;
        }
        if (!finishing_) take(Bytes(buffer_).first(size));
        if (open_) receive();
      });
}

void Byte_stream::enqueue(std::vector<std::byte> bytes) {
  const std::lock_guard lock(mutex_);
  if (dead_) return;
  if (queued_bytes_ + bytes.size() > limits_.tcp_send_queue_bytes) {
    dead_ = true;
    counters_.slow_readers.add();
    boost::asio::post(workers_.control(),
                      [self = shared_from_this()] { self->refuse("it reads too slowly"); });
    return;
  }
  queued_bytes_ += bytes.size();
  queue_.push_back(std::move(bytes));
  if (std::exchange(busy_, true)) return;
  boost::asio::post(workers_.control(), [self = shared_from_this()] { self->write(); });
}

void Byte_stream::write() {
  {
    const std::lock_guard lock(mutex_);
    writing_.clear();
    writing_.swap(queue_);
    busy_ = !writing_.empty();
  }
  if (!open_) return;
  if (writing_.empty()) {
    if (finishing_) end_stream();
    return;
  }
  std::vector<boost::asio::const_buffer> buffers;
  std::size_t total = 0;
  for (const auto& bytes : writing_) {
    buffers.emplace_back(bytes.data(), bytes.size());
    total += bytes.size();
  }
  boost::asio::async_write(
      socket_, buffers,
      [this, total, self = shared_from_this()](const error_code& error, std::size_t) {
        if (!open_) return;
        if (error) {
          fail(error.message().c_str(), End::lost);
          return;
        }
        {
          const std::lock_guard lock(mutex_);
          queued_bytes_ -= total;
        }
        write();
      });
}

}  // namespace someip
