#include "platform/someip/event_channel.h"

#include <algorithm>
#include <iterator>
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
                             Counters& counters)
    : header_(notification(service, event, interface_version)),
      field_(field),
      transport_(transport),
      udp_(std::move(udp)),
      counters_(counters) {}

void Event_channel::notify(Bytes payload) {
  std::unique_lock lock(mutex_);
  if (field_) {
    if (!value_) value_.emplace();
    value_->assign(payload.begin(), payload.end());
  }
  if (!targets_) return;
  const std::uint16_t session = sessions_.next();
  if (held_ || sending_) {
    (held_ ? held_queue_ : queue_).push_back({{payload.begin(), payload.end()}, targets_, session});
    if (!held_ && discovery_sends_) take_over(lock);
    return;
  }
  sending_ = true;
  const Targets targets = targets_;
  lock.unlock();
  send(payload, *targets, session);
  lock.lock();
  drain(lock);
}

void Event_channel::hold(Targets targets) {
  const std::lock_guard lock(mutex_);
  targets_ = std::move(targets);
  held_ = true;
  held_value_ = value_;
}

void Event_channel::send_initial(Targets fresh) {
  std::unique_lock lock(mutex_);
  if (held_value_) {
    queue_.push_back({*held_value_, std::move(fresh), sessions_.next()});
    send_queue(lock);
    return;
  }
  const bool missing = field_ && !value_;
  lock.unlock();
  if (missing && value_missing_) value_missing_(header_.method);
}

void Event_channel::release() {
  std::unique_lock lock(mutex_);
  held_ = false;
  held_value_.reset();
  std::ranges::move(std::exchange(held_queue_, {}), std::back_inserter(queue_));
  send_queue(lock);
}

void Event_channel::send_queue(std::unique_lock<std::mutex>& lock) {
  if (std::exchange(sending_, true)) return;
  discovery_sends_ = true;
  drain(lock);
  discovery_sends_ = false;
  discovery_done_.notify_all();
}

void Event_channel::take_over(std::unique_lock<std::mutex>& lock) {
  publisher_waits_ = true;
  discovery_done_.wait(lock, [this] { return !discovery_sends_; });
  if (std::exchange(publisher_waits_, false)) drain(lock);
}

void Event_channel::drain(std::unique_lock<std::mutex>& lock) {
  while (!queue_.empty()) {
    if (discovery_sends_ && publisher_waits_) return;  // who goes on with the queue
    const Job job = std::move(queue_.front());
    queue_.pop_front();
    lock.unlock();
    send(job.payload, *job.targets, job.session);
    lock.lock();
  }
  sending_ = false;
  publisher_waits_ = false;
}

void Event_channel::send(Bytes payload, const Event_targets& targets, std::uint16_t session) {
  Header header = header_;
  header.session = session;
  // Counted first: whoever has received one finds it counted.
  if (transport_ == Transport::udp) {
    counters_.notifications_sent.add(targets.udp.size());
    if (udp_) udp_->send(header, payload, targets.udp);
    return;
  }
  counters_.notifications_sent.add(targets.streams.size());
  for (const auto& stream : targets.streams)
    stream->send(header, payload);
}

std::optional<std::vector<std::byte>> Event_channel::value() const {
  const std::lock_guard lock(mutex_);
  return value_;
}

}  // namespace someip
