#include "platform/someip/udp_port.h"

#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

namespace someip {

namespace {

/// After so many batches the first handler is not kept waiting any longer.
constexpr int batches_before_handlers = 4;
constexpr std::size_t max_datagram = 65536;
/// More in a row are no errors of sends: the socket itself is of no use.
constexpr int max_errors = 64;

/// Longer datagrams than ours spill into this one; a thread receives one batch at a time.
std::byte* spill(std::size_t index, std::size_t count) {
  thread_local const auto memory =
      std::make_unique_for_overwrite<std::byte[]>(count * max_datagram);
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete): initialised once per thread, not per call
  return memory.get() + index * max_datagram;
}

}  // namespace

bool Shared_reassembler::add(const Endpoint& peer,
                             const Header& header,
                             Bytes payload,
                             Counters& counters,
                             Reassembler::Message& message) {
  const std::lock_guard lock(mutex_);
  const auto result = reassembler_.add(peer, header, payload, std::chrono::steady_clock::now());
  counters.dropped_segments.add(reassembler_.take_abandoned());
  switch (result) {
    case Reassembler::Result::incomplete:
      return false;
    case Reassembler::Result::complete:
      message = reassembler_.take();
      return true;
    case Reassembler::Result::broken:
      counters.dropped_segments.add();
      return false;
    case Reassembler::Result::refused:
      counters.refused_reassemblies.add();
      return false;
  }
  return false;
}

void Shared_reassembler::forget(const Address& peer) {
  const std::lock_guard lock(mutex_);
  reassembler_.forget(peer);
}

Udp_port::Udp_port(std::unique_ptr<Udp_socket> socket,
                   Receiver& receiver,
                   Workers& workers,
                   Shared_reassembler& reassembler,
                   Segment_shaper& shaper,
                   Counters& counters,
                   Log& log)
    : socket_(std::move(socket)),
      local_(socket_->local()),
      receiver_(receiver),
      workers_(workers),
      reassembler_(reassembler),
      shaper_(shaper),
      counters_(counters),
      log_(log) {}

void Udp_port::open() {
  const std::lock_guard lock(receive_mutex_);
  if (std::exchange(open_, true)) return;
  watch_ = workers_.watch(socket_->descriptor(), shared_from_this());
}

void Udp_port::close() {
  const std::lock_guard lock(receive_mutex_);
  if (std::exchange(open_, false)) workers_.unwatch(watch_, socket_->descriptor());
}

void Udp_port::on_readable() {
  Tasks tasks;
  std::size_t posted = 1;  // the first one is ours
  for (int batch = 1;; ++batch) {
    const auto [count, malformed_from] = receive_batch(tasks);
    if (malformed_from) {
      log_.limited(Log_level::warning, "malformed",
                   "malformed SOME/IP message from " + to_string(*malformed_from) + " dropped");
    }
    // A slow handler must not keep the others waiting: they go to other workers.
    for (; posted < tasks.size(); ++posted) {
      workers_.post([task = std::move(tasks[posted])] { task->run(); });
    }
    // Less than a full batch: the socket was empty, and the next arrival is announced again.
    if (count < datagrams_per_batch) break;
    if (batch == batches_before_handlers) {
      workers_.post([self = shared_from_this()] { self->on_readable(); });
      break;
    }
  }
  if (!tasks.empty()) tasks.front()->run();
}

Udp_port::Batch Udp_port::receive_batch(Tasks& tasks) {
  const std::lock_guard lock(receive_mutex_);
  if (!open_) return {};
  std::array<std::array<iovec, 2>, datagrams_per_batch> parts;
  std::array<Socket_address, datagrams_per_batch> from;
  std::array<mmsghdr, datagrams_per_batch> messages{};
  for (std::size_t i = 0; i < datagrams_per_batch; ++i) {
    if (buffers_[i].size() == 0) buffers_[i] = Buffer(Buffer::usual_size);
    parts[i][0] = {buffers_[i].data(), Buffer::usual_size};
    parts[i][1] = {spill(i, datagrams_per_batch), max_datagram};
    messages[i].msg_hdr.msg_name = from[i].data();
    messages[i].msg_hdr.msg_namelen = Socket_address::capacity();
    messages[i].msg_hdr.msg_iov = parts[i].data();
    messages[i].msg_hdr.msg_iovlen = parts[i].size();
  }

  int count = -1;
  for (int errors = 0; count < 0 && errors < max_errors; ++errors) {
    count = ::recvmmsg(socket_->descriptor(), messages.data(), datagrams_per_batch, MSG_DONTWAIT,
                       nullptr);
    // Errors of earlier sends (a port that nobody has open) come back here, once, and say nothing.
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
  }
  if (count <= 0) return {};
  Batch batch{static_cast<std::size_t>(count), std::nullopt};
  counters_.datagrams_received.add(static_cast<std::uint64_t>(count));
  for (std::size_t i = 0; i < batch.datagrams; ++i) {
    const std::size_t size = messages[i].msg_len;
    Buffer buffer = std::move(buffers_[i]);
    if (size > Buffer::usual_size) {
      Buffer large(size);
      std::memcpy(large.data(), buffer.data(), Buffer::usual_size);
      std::memcpy(large.data() + Buffer::usual_size, spill(i, datagrams_per_batch),
                  size - Buffer::usual_size);
      buffer = std::move(large);
    }
    const Endpoint sender = from[i].endpoint();
    if (!split(buffer, size, sender, tasks)) batch.malformed_from = sender;
  }
  return batch;
}

bool Udp_port::split(const Buffer& buffer, std::size_t size, const Endpoint& from, Tasks& tasks) {
  Datagram_reader reader(Bytes(buffer.data(), size));
  while (const auto message = reader.next()) {
    if (!message->header.segmented()) {
      receiver_.received({message->header, message->payload, buffer}, from, *this, tasks);
      continue;
    }
    counters_.segments_received.add();
    Reassembler::Message whole;
    if (!reassembler_.add(from, message->header, message->payload, counters_, whole)) continue;
    const Buffer copy = Buffer::copy_of(whole.payload);
    receiver_.received({whole.header, Bytes(copy.data(), whole.payload.size()), copy}, from, *this,
                       tasks);
  }
  if (reader.malformed()) counters_.dropped_malformed.add();
  return !reader.malformed();
}

bool Udp_port::sent(std::error_code error, const Socket_address& to) {
  if (!error) {
    counters_.datagrams_sent.add();
    return true;
  }
  const bool full =
      error == std::errc::operation_would_block || error == std::errc::no_buffer_space;
  (full ? counters_.send_would_block : counters_.send_failed).add();
  log_.limited(Log_level::warning, full ? "full" : "send",
               "cannot send to " + to_string(to.endpoint()) + ": " + error.message());
  return false;
}

void Udp_port::send(const Header& header, Bytes payload, std::span<const Socket_address> to) {
  if (payload.size() > max_datagram_payload || !shaper_.idle()) {
    shaper_.send(*this, header, payload, to);
    return;
  }
  const Header_bytes head = header_bytes(header, payload.size());
  for (const Socket_address& destination : to) {
    static_cast<void>(sent(socket_->send(head, payload, destination), destination));
  }
}

std::size_t Udp_port::send_part(const Header& header,
                                Bytes payload,
                                std::size_t offset,
                                std::size_t segments,
                                const Socket_address& to) {
  if (payload.size() <= max_datagram_payload) {
    const Header_bytes head = header_bytes(header, payload.size());
    static_cast<void>(sent(socket_->send(head, payload, to), to));
    return payload.size();
  }
  for (; segments > 0 && offset < payload.size(); --segments) {
    const Segment segment = segment_at(header, payload, offset);
    if (!sent(socket_->send(segment.head, segment.part, to), to)) return payload.size();
    counters_.segments_sent.add();
    offset += segment.part.size();
  }
  return offset;
}

}  // namespace someip
