#include "platform/someip/event_channel.h"

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
  if (sending_) {
    queue_.push_back({{payload.begin(), payload.end()}, targets_, session});
    return;
  }
  sending_ = true;
  const Targets targets = targets_;
  lock.unlock();
  send(payload, *targets, session);
  lock.lock();
  drain(lock);
}

void Event_channel::set_targets(Targets targets, Targets fresh) {
  std::unique_lock lock(mutex_);
  targets_ = std::move(targets);
  if (!fresh) return;
  if (!value_) {
    lock.unlock();
    if (field_ && value_missing_) value_missing_(header_.method);
    return;
  }
  queue_.push_back({*value_, std::move(fresh), sessions_.next()});
  if (std::exchange(sending_, true)) return;
  drain(lock);
}

void Event_channel::drain(std::unique_lock<std::mutex>& lock) {
  while (!queue_.empty()) {
    const Job job = std::move(queue_.front());
    queue_.pop_front();
    lock.unlock();
    send(job.payload, *job.targets, job.session);
    lock.lock();
  }
  sending_ = false;
}

void Event_channel::send(Bytes payload, const Event_targets& targets, std::uint16_t session) {
  Header header = header_;
  header.session = session;
  if (transport_ == Transport::udp) {
    if (udp_) udp_->send(header, payload, targets.udp);
    counters_.notifications_sent.add(targets.udp.size());
    return;
  }
  for (const auto& stream : targets.streams)
    stream->send(header, payload);
  counters_.notifications_sent.add(targets.streams.size());
}

std::optional<std::vector<std::byte>> Event_channel::value() const {
  const std::lock_guard lock(mutex_);
  return value_;
}

}  // namespace someip
