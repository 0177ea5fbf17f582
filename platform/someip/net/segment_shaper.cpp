#include "platform/someip/net/segment_shaper.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <tuple>
#include <utility>

#include "platform/someip/wire/segmentation.h"

namespace someip {

namespace {

/// Approximate cost of a destination beside the message itself.
constexpr std::size_t bytes_per_destination = 128;

std::size_t segments_of(std::size_t payload_size) {
  return payload_size <= max_datagram_payload
             ? 1
             : (payload_size + max_segment_payload - 1) / max_segment_payload;
}

}  // namespace

/// A copy of a message, counted while it exists.
class Segment_shaper::Message {
 public:
  Message(const Header& of, Bytes content, std::atomic<std::size_t>& total, std::size_t cost)
      : header(of), payload(content.begin(), content.end()), total_(total), cost_(cost) {}
  ~Message() { total_.fetch_sub(cost_, std::memory_order_relaxed); }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  const Header header;
  const std::vector<std::byte> payload;

 private:
  std::atomic<std::size_t>& total_;
  const std::size_t cost_;
};

bool Segment_shaper::Key::operator<(const Key& other) const {
  return std::tie(sender, service, method, to) <
         std::tie(other.sender, other.service, other.method, other.to);
}

Segment_shaper::Segment_shaper(const Deployment& deployment,
                               boost::asio::io_context& control,
                               Counters& counters)
    : shaping_(deployment.segments),
      max_bytes_(deployment.limits.queued_segment_bytes),
      control_(control),
      counters_(counters),
      timer_(control) {}

Segment_shaper::~Segment_shaper() = default;

std::shared_ptr<const Segment_shaper::Message> Segment_shaper::copy(const Header& header,
                                                                    Bytes payload,
                                                                    std::size_t destinations) {
  const std::size_t cost = payload.size() + destinations * bytes_per_destination;
  if (bytes_.fetch_add(cost, std::memory_order_relaxed) + cost <= max_bytes_) {
    return std::make_shared<const Message>(header, payload, bytes_, cost);
  }
  bytes_.fetch_sub(cost, std::memory_order_relaxed);
  counters_.refused_segmented.add();
  return nullptr;
}

void Segment_shaper::send(const std::shared_ptr<Udp_sender>& sender,
                          const Header& header,
                          Bytes payload,
                          std::span<const Socket_address> to) {
  const bool spread = shaping_.pause.count() > 0 && segments_of(payload.size()) > shaping_.burst;
  std::shared_ptr<const Message> message;
  if (spread) message = copy(header, payload, to.size());
  if (spread && !message) return;
  for (const Socket_address& destination : to) {
    const Key key{sender.get(), header.service, header.method, destination.endpoint()};
    std::unique_lock lock(mutex_);
    if (!spread && !lanes_.contains(key)) {
      lock.unlock();
      sender->send_part(header, payload, 0, segments_of(payload.size()), destination);
      continue;
    }
    if (stopped_) return;
    if (!message) message = copy(header, payload, to.size());
    if (!message) continue;
    const auto [lane, added] = lanes_.try_emplace(key);
    if (added) {
      lane->second.sender = sender;
      lane->second.to = destination;
      turns_.push_back(lane);
    }
    lane->second.messages.push_back({message});
    waiting_.fetch_add(1, std::memory_order_release);
    if (!std::exchange(scheduled_, true)) {
      boost::asio::post(control_, [this, next = next_burst_] { run_at(next); });
    }
  }
}

void Segment_shaper::run_at(Time next) {
  timer_.expires_at(next);
  timer_.async_wait([this](const boost::system::error_code& cancelled) {
    if (!cancelled) burst();
  });
}

void Segment_shaper::burst() {
  std::unique_lock lock(mutex_);
  for (std::size_t left = shaping_.burst; left > 0 && !turns_.empty();) {
    const auto turn = turns_.front();
    turns_.pop_front();
    // The lane stays in place: other threads only append to it.
    Lane& lane = turn->second;
    Waiting& first = lane.messages.front();
    const Message& message = *first.message;
    lock.unlock();
    const std::size_t before = first.sent;
    first.sent = lane.sender->send_part(message.header, message.payload, before, left, lane.to);
    const bool done = first.sent == message.payload.size();
    left -= std::min(left, segments_of(first.sent - before));
    lock.lock();
    if (done) {
      lane.messages.pop_front();
      waiting_.fetch_sub(1, std::memory_order_release);
    }
    if (lane.messages.empty()) {
      lanes_.erase(turn);
    } else {
      turns_.push_back(turn);
    }
  }
  next_burst_ = std::chrono::steady_clock::now() + shaping_.pause;
  scheduled_ = !turns_.empty();
  if (!scheduled_) return;
  lock.unlock();
  run_at(next_burst_);
}

void Segment_shaper::clear() {
  Lanes dropped;  // destroyed after the lock
  const std::lock_guard lock(mutex_);
  dropped.swap(lanes_);
  turns_.clear();
  waiting_.store(0, std::memory_order_release);
}

void Segment_shaper::stop() {
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
  }
  clear();
  timer_.cancel();
}

}  // namespace someip
