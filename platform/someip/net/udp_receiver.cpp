#include "platform/someip/net/udp_receiver.h"

#include <algorithm>
#include <span>
#include <string>
#include <utility>

#include "platform/someip/wire/message.h"

namespace someip {

namespace {

/// After this many batches a worker runs the first handler and leaves the socket to another worker.
constexpr int batches_before_handlers = 4;
constexpr std::size_t max_datagram = 65536;

/// The place for a datagram's bytes beyond a buffer of the usual size. Each thread has memory of
/// its own, because it receives one batch at a time.
std::span<std::byte> spill(std::size_t index) {
  thread_local const auto memory =
      std::make_unique_for_overwrite<std::byte[]>(Udp_socket::max_arrivals * max_datagram);
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete): initialised once per thread, not per call
  return {memory.get() + index * max_datagram, max_datagram};
}

}  // namespace

Udp_receiver::Udp_receiver(std::shared_ptr<Udp_socket> socket,
                           Message_receiver& receiver,
                           Workers& workers,
                           Shared_reassembler& reassembler,
                           Counters& counters,
                           Log& log)
    : socket_(std::move(socket)),
      receiver_(receiver),
      workers_(workers),
      reassembler_(reassembler),
      counters_(counters),
      log_(log) {}

void Udp_receiver::open() {
  const std::lock_guard lock(mutex_);
  if (std::exchange(open_, true)) return;
  watch_ = workers_.watch(socket_->descriptor(), shared_from_this());
}

void Udp_receiver::open_with_threads() {
  const std::lock_guard lock(mutex_);
  if (std::exchange(open_, true)) return;
  socket_->set_blocking();
  const auto work = [self = shared_from_this()] { self->receive_in_thread(); };
  while (receiving_ < threads && workers_.start_thread(work))
    ++receiving_;
  if (receiving_ == 0) watch_ = workers_.watch(socket_->descriptor(), shared_from_this());
}

void Udp_receiver::close() {
  const std::lock_guard lock(mutex_);
  if (!std::exchange(open_, false)) return;
  if (watch_) {
    workers_.unwatch(*watch_, socket_->descriptor());
  } else {
    socket_->end_receiving();
  }
}

void Udp_receiver::post(Tasks& tasks, std::size_t first) {
  for (; first < tasks.size(); ++first)
    workers_.post([task = std::move(tasks[first])] { task->run(); });
}

void Udp_receiver::report(const Harvest& harvest) {
  if (!harvest.malformed_from) return;
  log_.limited(Log_level::warning, "malformed",
               "malformed SOME/IP message from " + to_string(*harvest.malformed_from) + " dropped");
}

void Udp_receiver::receive_in_thread() {
  Buffer buffer;  // reused for the next datagram, unless a message still refers to it
  for (;;) {
    if (!buffer.unique()) buffer = Buffer(max_datagram);
    socket_->wait();
    Harvest harvest;
    if (!receive_one(buffer, harvest)) return;
    if (harvest.other_receives) {
      post(harvest.tasks, 1);
      harvest.tasks.front()->run();
      receiving_.fetch_add(1, std::memory_order_relaxed);
    } else {
      post(harvest.tasks, 0);
    }
    report(harvest);
  }
}

bool Udp_receiver::receive_one(Buffer& buffer, Harvest& harvest) {
  Udp_socket::Arrival arrival;
  arrival.begin = std::span(buffer.data(), max_datagram);
  const std::lock_guard lock(mutex_);
  if (!open_) return false;
  // Another thread may have taken the datagram, or the wait ended with the error of an earlier
  // send, which does not concern receiving.
  if (!socket_->receive(arrival)) return true;
  counters_.datagrams_received.add();
  take(buffer, arrival, harvest);
  if (harvest.tasks.empty() || receiving_.load(std::memory_order_relaxed) < 2) return true;
  receiving_.fetch_sub(1, std::memory_order_relaxed);
  harvest.other_receives = true;
  return true;
}

void Udp_receiver::on_readable() {
  Harvest harvest;
  std::size_t posted = 1;  // the calling thread runs the first task
  for (int batch = 1;; ++batch) {
    const std::size_t count = receive_batch(harvest);
    post(harvest.tasks, posted);
    posted = std::max(posted, harvest.tasks.size());
    // Less than a full batch: the socket was empty, and the next arrival is announced again.
    if (count < Udp_socket::max_arrivals) break;
    if (batch == batches_before_handlers) {
      workers_.post([self = shared_from_this()] { self->on_readable(); });
      break;
    }
  }
  if (!harvest.tasks.empty()) harvest.tasks.front()->run();
  report(harvest);
}

std::size_t Udp_receiver::receive_batch(Harvest& harvest) {
  const std::lock_guard lock(mutex_);
  if (!open_) return 0;
  std::array<Udp_socket::Arrival, Udp_socket::max_arrivals> arrivals;
  for (std::size_t i = 0; i < arrivals.size(); ++i) {
    if (buffers_[i].empty()) buffers_[i] = Buffer(Buffer::usual_size);
    arrivals[i].begin = std::span(buffers_[i].data(), Buffer::usual_size);
    arrivals[i].rest = spill(i);
  }
  const std::size_t count = socket_->receive(arrivals);
  counters_.datagrams_received.add(count);
  for (std::size_t i = 0; i < count; ++i) {
    const auto& [begin, rest, from, size, time] = arrivals[i];
    Buffer buffer = std::move(buffers_[i]);
    if (size > begin.size()) {
      Buffer large(size);
      std::ranges::copy(rest.first(size - begin.size()),
                        std::ranges::copy(begin, large.data()).out);
      buffer = std::move(large);
    }
    take(buffer, arrivals[i], harvest);
  }
  return count;
}

void Udp_receiver::take(const Buffer& buffer,
                        const Udp_socket::Arrival& arrival,
                        Harvest& harvest) {
  const Endpoint from = arrival.from.endpoint();
  Datagram_reader reader(Bytes(buffer.data(), arrival.size));
  while (const auto message = reader.next()) {
    if (!message->header.segmented()) {
      receiver_.received({message->header, message->payload, buffer, arrival.time}, from,
                         harvest.tasks);
      continue;
    }
    counters_.segments_received.add();
    Reassembler::Message whole;
    if (!reassembler_.add(from, message->header, message->payload, counters_, whole)) continue;
    const Buffer copy = Buffer::copy_of(whole.payload);
    receiver_.received({whole.header, Bytes(copy.data(), whole.payload.size()), copy, arrival.time},
                       from, harvest.tasks);
  }
  if (!reader.malformed()) return;
  counters_.dropped_malformed.add();
  harvest.malformed_from = from;
}

}  // namespace someip
