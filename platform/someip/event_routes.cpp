#include "platform/someip/event_routes.h"

#include <algorithm>
#include <utility>

namespace someip {

std::size_t Event_routes::Hash::operator()(const Key& key) const {
  // Without the address: few hosts offer the same event at the same port.
  const std::uint64_t ids = std::uint64_t{key.service} << 32 | std::uint64_t{key.event} << 16;
  return (ids | key.from.port) * 0x9E3779B97F4A7C15u;
}

void Event_routes::add(const Key& key, std::shared_ptr<Event_sink> sink) {
  const std::lock_guard lock(mutex_);
  routes_[key].push_back(std::move(sink));
}

void Event_routes::remove(const Key& key, const Event_sink* sink) {
  std::shared_ptr<Event_sink> removed;  // goes after the lock
  const std::lock_guard lock(mutex_);
  const auto route = routes_.find(key);
  if (route == routes_.end()) return;
  Sinks& sinks = route->second;
  const auto found =
      std::ranges::find_if(sinks, [&](const auto& one) { return one.get() == sink; });
  if (found == sinks.end()) return;
  removed = std::move(*found);
  sinks.erase(found);
  if (sinks.empty()) routes_.erase(route);
}

Event_routes::Sinks Event_routes::find(const Key& key) const {
  const std::lock_guard lock(mutex_);
  const auto found = routes_.find(key);
  return found == routes_.end() ? Sinks{} : found->second;
}

}  // namespace someip
