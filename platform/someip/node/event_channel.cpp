#include "platform/someip/node/event_channel.h"

#include <utility>

namespace someip {

namespace {

Header notification(std::uint16_t service, std::uint16_t event, std::uint8_t interface_version) {
  Header header;
  header.service = service;
  header.method = event;
  header.interface_version = interface_version;
  header.type = static_cast<std::uint8_t>(Message_type::notification);
  return header;
}

}  // namespace

Event_channel::Event_channel(std::uint16_t service,
                             std::uint16_t event,
                             std::uint8_t interface_version,
                             bool field,
                             Transport transport,
                             std::shared_ptr<Udp_port> udp,
                             Counters& counters,
                             Value_missing_handler value_missing)
    : header_(notification(service, event, interface_version)),
      field_(field),
      transport_(transport),
      udp_(std::move(udp)),
      counters_(counters),
      value_missing_(std::move(value_missing)) {}

/// One thread's right to send. The mutex is held when it begins and when it has ended.
class Event_channel::Turn {
 public:
  Turn(Event_channel& channel, std::unique_lock<std::mutex>& lock)
      : channel_(channel), lock_(lock) {
    channel_.begin_turn(lock_);
  }
  ~Turn() {
    if (!lock_.owns_lock()) lock_.lock();
    channel_.end_turn();
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  Event_channel& channel_;
  std::unique_lock<std::mutex>& lock_;
};

void Event_channel::begin_turn(std::unique_lock<std::mutex>& lock) {
  const std::uint64_t mine = ++last_turn_;
  if (turn_ != mine) turn_ended_.wait(lock, [&] { return turn_ == mine; });
}

void Event_channel::end_turn() {
  if (turn_++ != last_turn_) turn_ended_.notify_all();
}

void Event_channel::notify(Bytes payload) {
  std::unique_lock lock(mutex_);
  const Turn turn(*this, lock);
  if (field_) {
    if (!value_) value_.emplace();
    value_->assign(payload.begin(), payload.end());
  }
  if (!targets_) return;
  lock.unlock();
  // Only the thread whose turn it is writes.
  sent_to_all_.store(sent_to_all() + 1, std::memory_order_relaxed);
  send(payload, *targets_);
}

void Event_channel::hold(Targets targets) {
  std::unique_lock lock(mutex_);
  begin_discovery_turn(lock);
  targets_ = std::move(targets);
}

void Event_channel::begin_discovery_turn(std::unique_lock<std::mutex>& lock) {
  if (!std::exchange(held_, true)) begin_turn(lock);
}

bool Event_channel::send_initial(const Targets& fresh) {
  {
    std::unique_lock lock(mutex_);
    begin_discovery_turn(lock);
  }
  if (!value_) {
    value_was_missing_ = field_;
    return false;
  }
  send(*value_, *fresh);
  return true;
}

void Event_channel::release() {
  {
    const std::lock_guard lock(mutex_);
    if (std::exchange(held_, false)) end_turn();
  }
  if (std::exchange(value_was_missing_, false) && value_missing_) value_missing_(header_.method);
}

void Event_channel::send(Bytes payload, const Event_targets& targets) {
  Header header = header_;
  // Drawn within the turn, so that sessions never go backwards for a subscriber.
  header.session = sessions_.next();
  const bool by_udp = transport_ == Transport::udp;
  const auto& streams = by_udp ? targets.udp_streams : targets.streams;
  // Counted first: a receiver of a notification finds it counted.
  counters_.notifications_sent.add(streams.size() + (by_udp ? targets.udp.size() : 0));
  if (by_udp && udp_ && !targets.udp.empty()) udp_->send(header, payload, targets.udp);
  for (const auto& stream : streams)
    stream->send(header, payload);
}

std::optional<std::vector<std::byte>> Event_channel::value() const {
  const std::lock_guard lock(mutex_);
  return value_;
}

}  // namespace someip
