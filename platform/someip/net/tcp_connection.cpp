#include "platform/someip/net/tcp_connection.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <string>
#include <utility>

namespace someip {

namespace {

using boost::system::error_code;

constexpr std::chrono::seconds cookie_period{10};
/// A peer that does not acknowledge data for this time loses the connection. So does a silent peer
/// that does not answer three probes.
constexpr int unacknowledged_limit_ms = 5000;
constexpr int idle_before_probe_s = 5;
constexpr int probe_period_s = 2;
constexpr int probes = 3;

void set(int descriptor, int level, int name, int value) {
  static_cast<void>(::setsockopt(descriptor, level, name, &value, sizeof value));
}

Endpoint local_of(const Tcp_connection::Socket& socket) {
  error_code ignored;
  return endpoint_of(socket.local_endpoint(ignored));
}

}  // namespace

void close_in_children(int descriptor) {
  static_cast<void>(::fcntl(descriptor, F_SETFD, FD_CLOEXEC));
}

Tcp_connection::Tcp_connection(Socket socket,
                               const Endpoint& peer,
                               bool opened_here,
                               const Limits& limits,
                               Handler& handler,
                               Workers& workers,
                               Counters& counters,
                               Log& log)
    : socket_(std::move(socket)),
      opened_here_(opened_here),
      limits_(limits),
      handler_(handler),
      workers_(workers),
      counters_(counters),
      log_(log),
      local_(local_of(socket_)),
      peer_(peer),
      established_(std::chrono::steady_clock::now()),
      reader_(limits.message_bytes) {
  const int descriptor = socket_.native_handle();
  close_in_children(descriptor);
  set(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);  // someip_325
  set(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1);
  set(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, idle_before_probe_s);
  set(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, probe_period_s);
  set(descriptor, IPPROTO_TCP, TCP_KEEPCNT, probes);
  set(descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT, unacknowledged_limit_ms);
}

void Tcp_connection::start() {
  receive();
}

void Tcp_connection::close() {
  open_ = false;
  {
    const std::lock_guard lock(mutex_);
    dead_ = true;
    queue_.clear();
  }
  error_code ignored;
  socket_.close(ignored);
}

void Tcp_connection::finish() {
  finishing_ = true;
  bool all_sent = false;
  {
    const std::lock_guard lock(mutex_);
    dead_ = true;
    all_sent = !busy_;
  }
  if (all_sent) end_stream();
}

void Tcp_connection::end_stream() {
  // Not a close: unread data would turn the close into a reset, which can overtake sent data.
  error_code ignored;
  socket_.shutdown(Socket::shutdown_send, ignored);
}

void Tcp_connection::fail(const char* why) {
  if (!open_) return;
  if (!finishing_) {
    counters_.tcp_lost.add();
    log_.limited(Log_level::info, "tcp", "connection with " + to_string(peer_) + " ended: " + why);
  }
  close();
  handler_.lost(shared_from_this());
}

void Tcp_connection::receive() {
  socket_.async_read_some(
      boost::asio::buffer(buffer_),
      [this, self = shared_from_this()](const error_code& error, std::size_t size) {
        if (!open_) return;
        if (error) {
          fail(error.message().c_str());
          return;
        }
        if (!finishing_) {
          reader_.append(Bytes(buffer_).first(size));
          deliver();
        }
        if (open_) receive();
      });
}

void Tcp_connection::deliver() {
  const std::size_t resynchronisations = reader_.resynchronisations();
  Tasks tasks;
  while (const auto message = reader_.next()) {
    if (message->header.segmented()) {
      counters_.dropped_segments.add();  // a stream needs none
      continue;
    }
    Buffer copy = Buffer::copy_of(message->payload);
    const Bytes payload(copy.data(), message->payload.size());
    handler_.received({message->header, payload, std::move(copy)}, shared_from_this(), tasks);
  }
  for (auto& task : tasks) {
    workers_.post([task = std::move(task)] { task->run(); });
  }
  if (reader_.resynchronisations() == resynchronisations) return;
  counters_.tcp_resynchronised.add(reader_.resynchronisations() - resynchronisations);
  counters_.dropped_malformed.add();
  log_.limited(Log_level::warning, "resynchronised",
               "malformed SOME/IP stream from " + to_string(peer_) + ": skipped to a magic cookie");
}

void Tcp_connection::send(const Header& header, Bytes payload) {
  const Header_bytes head = header_bytes(header, payload.size());
  std::vector<std::byte> bytes;
  bytes.reserve(head.size() + payload.size());
  bytes.insert(bytes.end(), head.begin(), head.end());
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  enqueue(std::move(bytes));
}

void Tcp_connection::probe() {
  {
    const std::lock_guard lock(mutex_);
    last_cookie_ = {};
  }
  enqueue({});
}

void Tcp_connection::enqueue(std::vector<std::byte> bytes) {
  const std::lock_guard lock(mutex_);
  if (dead_) return;
  const Time now = std::chrono::steady_clock::now();
  if (last_cookie_ == Time{} || now - last_cookie_ >= cookie_period) {
    // Inserts now and then a boundary that a listener can find (someip_594).
    const Header_bytes cookie = magic_cookie(opened_here_);
    bytes.insert(bytes.begin(), cookie.begin(), cookie.end());
    last_cookie_ = now;
  }
  if (queued_bytes_ + bytes.size() > limits_.tcp_send_queue_bytes) {
    dead_ = true;
    counters_.slow_readers.add();
    boost::asio::post(workers_.control(),
                      [self = shared_from_this()] { self->fail("it reads too slowly"); });
    return;
  }
  queued_bytes_ += bytes.size();
  queue_.push_back(std::move(bytes));
  if (std::exchange(busy_, true)) return;
  boost::asio::post(workers_.control(), [self = shared_from_this()] { self->write(); });
}

void Tcp_connection::write() {
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
          fail(error.message().c_str());
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
