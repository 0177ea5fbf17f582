#include "platform/someip/event_routes.h"

#include <functional>

namespace someip {

std::size_t Event_routes::Hash::operator()(const Key& key) const {
  const std::size_t ids = (std::size_t{key.service} << 16) | key.event;
  const std::size_t place = std::hash<Address>()(key.from.address) * 31 + key.from.port;
  return place * 0x9E3779B97F4A7C15u + ids;
}

void Event_routes::add(const Key& key, std::shared_ptr<Event_sink> sink) {
  const std::lock_guard lock(mutex_);
  auto& present = routes_[key];
  auto sinks = present ? std::make_shared<Sinks>(*present) : std::make_shared<Sinks>();
  sinks->push_back(std::move(sink));
  present = std::move(sinks);
}

void Event_routes::remove(const Key& key, const Event_sink* sink) {
  std::shared_ptr<const Sinks> old;  // goes after the lock
  const std::lock_guard lock(mutex_);
  const auto found = routes_.find(key);
  if (found == routes_.end()) return;
  auto sinks = std::make_shared<Sinks>(*found->second);
  std::erase_if(*sinks, [&](const auto& one) { return one.get() == sink; });
  old = std::exchange(found->second, sinks);
  if (sinks->empty()) routes_.erase(found);
}

std::shared_ptr<const Event_routes::Sinks> Event_routes::find(const Key& key) const {
  const std::lock_guard lock(mutex_);
  const auto found = routes_.find(key);
  return found == routes_.end() ? nullptr : found->second;
}

}  // namespace someip
