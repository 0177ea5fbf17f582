#include "platform/someip/udp_port.h"

#include <sys/timerfd.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <span>
#include <string>
#include <system_error>
#include <utility>

namespace someip {

namespace {

/// While datagrams follow each other closely, a handler that takes longer than this, or twice this,
/// has others receive in its thread's stead. Longer than the kernel's tick: an earlier timer has
/// the processor's clock set anew, which costs a virtual machine 7 us, on the road of a datagram.
constexpr std::chrono::nanoseconds patience = std::chrono::microseconds(4700);
/// So many datagrams after a slow handler the workers are told of at once what comes meanwhile.
constexpr int wary_turns = 1000;
/// After so many batches the first handler is not kept waiting any longer.
constexpr int batches_before_handlers = 4;
constexpr std::size_t max_datagram = 65536;
/// More in a row are no errors of sends: the socket itself is of no use.
constexpr int max_errors = 64;

/// Longer datagrams than ours spill into these; a thread receives one batch at a time.
std::byte* spill(std::size_t index) {
  constexpr std::size_t datagrams = 8;
  thread_local const auto memory =
      std::make_unique_for_overwrite<std::byte[]>(datagrams * max_datagram);
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete): initialised once per thread, not per call
  return memory.get() + index * max_datagram;
}

/// A message, or a segment of one, in one piece: the kernel takes two with more effort than the
/// copy costs.
class Datagram {
 public:
  Datagram(Bytes head, Bytes rest) : size_(head.size() + rest.size()) {
    std::ranges::copy(rest, std::ranges::copy(head, bytes_.begin()).out);
  }
  [[nodiscard]] Bytes bytes() const { return Bytes(bytes_).first(size_); }

 private:
  static constexpr std::size_t longest = header_size + max_datagram_payload;
  static_assert(longest >= header_size + segment_header_size + max_segment_payload);
  std::array<std::byte, longest> bytes_;
  const std::size_t size_;
};

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

/// A timer whose end a worker is told of.
class Udp_port::Alarm final : public Readable {
 public:
  Alarm(Workers& workers, std::weak_ptr<Udp_port> port)
      : workers_(workers),
        port_(std::move(port)),
        descriptor_(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {
    if (descriptor_ < 0) {
      throw std::system_error(errno, std::generic_category(),
                              "cannot create a timer for a receiving thread");
    }
  }
  ~Alarm() override { ::close(descriptor_); }
  Alarm(const Alarm&) = delete;
  Alarm& operator=(const Alarm&) = delete;

  void watch(std::shared_ptr<Alarm> self) { watch_ = workers_.watch(descriptor_, std::move(self)); }
  void unwatch() { workers_.unwatch(watch_, descriptor_); }
  /// Goes off again and again.
  void start() const { set(patience); }
  void stop() const { set({}); }
  void on_readable() override {
    std::uint64_t ticks = 0;
    if (::read(descriptor_, &ticks, sizeof ticks) != sizeof ticks) return;
    if (const auto port = port_.lock()) port->on_tick();
  }

 private:
  void set(std::chrono::nanoseconds period) const {
    itimerspec time{};
    time.it_value.tv_nsec = time.it_interval.tv_nsec = period.count();
    ::timerfd_settime(descriptor_, 0, &time, nullptr);
  }

  Workers& workers_;
  const std::weak_ptr<Udp_port> port_;
  const int descriptor_;
  Workers::Watch watch_{};
};

void Udp_port::open() {
  const std::lock_guard lock(receive_mutex_);
  if (std::exchange(open_, true)) return;
  workers_receive_ = true;
  watch_ = workers_.watch(socket_->descriptor(), shared_from_this());
}

void Udp_port::open_with_thread() {
  const std::lock_guard lock(receive_mutex_);
  if (std::exchange(open_, true)) return;
  socket_->set_blocking();
  alarm_ = std::make_shared<Alarm>(workers_, weak_from_this());
  alarm_->watch(alarm_);
  watch_ = workers_.watch(socket_->descriptor(), shared_from_this());
  workers_.pause(watch_, socket_->descriptor());
  if (workers_.start_thread([self = shared_from_this()] { self->receive_in_thread(); })) return;
  std::exchange(alarm_, nullptr)->unwatch();
  workers_receive_ = true;
  workers_.resume(watch_, socket_->descriptor());
}

void Udp_port::close() {
  const std::lock_guard lock(receive_mutex_);
  if (!std::exchange(open_, false)) return;
  workers_.unwatch(watch_, socket_->descriptor());
  if (!alarm_) return;
  alarm_->unwatch();
  socket_->end_receiving();
}

void Udp_port::report(const Harvest& harvest) {
  if (!harvest.malformed_from) return;
  log_.limited(Log_level::warning, "malformed",
               "malformed SOME/IP message from " + to_string(*harvest.malformed_from) + " dropped");
}

void Udp_port::receive_in_thread() {
  Buffer buffer;  // used again and again, unless somebody still has it
  for (;;) {
    if (!buffer.unique()) buffer = Buffer(max_datagram);
    Harvest harvest;
    if (!receive_one(buffer, harvest)) return;
    if (harvest.watched) workers_.resume(watch_, socket_->descriptor());
    Tasks& tasks = harvest.tasks;
    for (std::size_t i = 1; i < tasks.size(); ++i) {
      workers_.post([task = std::move(tasks[i])] { task->run(); });
    }
    if (!tasks.empty()) tasks.front()->run();
    report(harvest);
    const bool relieved = doing_.exchange(Doing::receiving) == Doing::handling_relieved;
    if (!relieved && !harvest.watched) continue;
    const std::lock_guard lock(receive_mutex_);
    workers_receive_ = false;
    workers_.pause(watch_, socket_->descriptor());
    if (!std::exchange(ticking_, true)) alarm_->start();
  }
}

bool Udp_port::receive_one(Buffer& buffer, Harvest& harvest) {
  Socket_address from;
  Arrival arrival;
  const ssize_t size = socket_->receive(std::span(buffer.data(), max_datagram), from, arrival);
  const std::lock_guard lock(receive_mutex_);
  if (!open_) return false;
  if (size < 0) {
    if (++errors_ < max_errors) return true;  // of earlier sends, as in receive_batch()
    alarm_->stop();
    workers_receive_ = true;
    workers_.resume(watch_, socket_->descriptor());
    return false;
  }
  errors_ = 0;
  counters_.datagrams_received.add();
  take(buffer, static_cast<std::size_t>(size), from.endpoint(), arrival, harvest);
  doing_.store(Doing::handling, std::memory_order_relaxed);  // the others look under the lock
  ++turn_;
  harvest.watched = !ticking_ || wary_ > 0;
  if (wary_ > 0) --wary_;
  return true;
}

bool Udp_port::relieve_thread() {
  auto expected = Doing::handling;
  workers_receive_ = doing_.compare_exchange_strong(expected, Doing::handling_relieved);
  return workers_receive_;
}

void Udp_port::on_tick() {
  const std::lock_guard lock(receive_mutex_);
  if (!open_ || workers_receive_) return;
  if (turn_ != std::exchange(turn_at_tick_, turn_)) return;
  alarm_->stop();
  ticking_ = false;
  if (!relieve_thread()) return;
  wary_ = wary_turns;
  workers_.resume(watch_, socket_->descriptor());
}

void Udp_port::on_readable() {
  Harvest harvest;
  Tasks& tasks = harvest.tasks;
  std::size_t posted = 1;  // the first one is ours
  for (int batch = 1;; ++batch) {
    const std::size_t count = receive_batch(harvest);
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
  report(harvest);
}

std::size_t Udp_port::receive_batch(Harvest& harvest) {
  const std::lock_guard lock(receive_mutex_);
  if (!open_ || (!workers_receive_ && !relieve_thread())) return 0;
  std::array<std::array<iovec, 2>, datagrams_per_batch> parts;
  std::array<Socket_address, datagrams_per_batch> from;
  std::array<Arrival_control, datagrams_per_batch> control;
  std::array<mmsghdr, datagrams_per_batch> messages{};
  for (std::size_t i = 0; i < datagrams_per_batch; ++i) {
    if (buffers_[i].size() == 0) buffers_[i] = Buffer(Buffer::usual_size);
    parts[i][0] = {buffers_[i].data(), Buffer::usual_size};
    parts[i][1] = {spill(i), max_datagram};
    messages[i].msg_hdr.msg_name = from[i].data();
    messages[i].msg_hdr.msg_namelen = Socket_address::capacity();
    messages[i].msg_hdr.msg_iov = parts[i].data();
    messages[i].msg_hdr.msg_iovlen = parts[i].size();
    messages[i].msg_hdr.msg_control = control[i].bytes.data();
    messages[i].msg_hdr.msg_controllen = control[i].bytes.size();
  }
  int count = -1;
  for (int errors = 0; count < 0 && errors < max_errors; ++errors) {
    count = ::recvmmsg(socket_->descriptor(), messages.data(), datagrams_per_batch, MSG_DONTWAIT,
                       nullptr);
    // Errors of earlier sends (a port that nobody has open) come back here, once, and say nothing.
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
  }
  if (count <= 0) return 0;
  const auto datagrams = static_cast<std::size_t>(count);
  counters_.datagrams_received.add(datagrams);
  for (std::size_t i = 0; i < datagrams; ++i) {
    const std::size_t size = messages[i].msg_len;
    Buffer buffer = std::move(buffers_[i]);
    if (size > Buffer::usual_size) {
      Buffer large(size);
      std::memcpy(large.data(), buffer.data(), Buffer::usual_size);
      std::memcpy(large.data() + Buffer::usual_size, spill(i), size - Buffer::usual_size);
      buffer = std::move(large);
    }
    take(buffer, size, from[i].endpoint(), arrival_of(messages[i].msg_hdr), harvest);
  }
  return datagrams;
}

void Udp_port::take(const Buffer& buffer,
                    std::size_t size,
                    const Endpoint& from,
                    Arrival arrival,
                    Harvest& harvest) {
  Datagram_reader reader(Bytes(buffer.data(), size));
  while (const auto message = reader.next()) {
    if (!message->header.segmented()) {
      receiver_.received({message->header, message->payload, buffer, arrival}, from, *this,
                         harvest.tasks);
      continue;
    }
    counters_.segments_received.add();
    Reassembler::Message whole;
    if (!reassembler_.add(from, message->header, message->payload, counters_, whole)) continue;
    const Buffer copy = Buffer::copy_of(whole.payload);
    receiver_.received({whole.header, Bytes(copy.data(), whole.payload.size()), copy, arrival},
                       from, *this, harvest.tasks);
  }
  if (!reader.malformed()) return;
  counters_.dropped_malformed.add();
  harvest.malformed_from = from;
}

bool Udp_port::send_datagram(Bytes datagram, const Socket_address& to) {
  const auto error = socket_->send(datagram, to);
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
  const Datagram datagram(header_bytes(header, payload.size()), payload);
  for (const Socket_address& destination : to)
    send_datagram(datagram.bytes(), destination);
}

std::size_t Udp_port::send_part(const Header& header,
                                Bytes payload,
                                std::size_t offset,
                                std::size_t segments,
                                const Socket_address& to) {
  if (payload.size() <= max_datagram_payload) {
    send_datagram(Datagram(header_bytes(header, payload.size()), payload).bytes(), to);
    return payload.size();
  }
  for (; segments > 0 && offset < payload.size(); --segments) {
    const Segment segment = segment_at(header, payload, offset);
    if (!send_datagram(Datagram(segment.head, segment.part).bytes(), to)) return payload.size();
    counters_.segments_sent.add();
    offset += segment.part.size();
  }
  return offset;
}

}  // namespace someip
