#include "platform/someip/node/event_routes.h"

#include <algorithm>
#include <utility>

namespace someip {

void Event_routes::add(const Key& key, std::shared_ptr<Event_sink> sink) {
  const std::lock_guard lock(mutex_);
  auto route = std::ranges::find(routes_, key, &Route::key);
  if (route == routes_.end()) route = routes_.insert(route, Route{key, {}});
  route->sinks.push_back(std::move(sink));
}

void Event_routes::remove(const Key& key, const Event_sink* sink) {
  std::shared_ptr<Event_sink> removed;  // goes after the lock
  const std::lock_guard lock(mutex_);
  const auto route = std::ranges::find(routes_, key, &Route::key);
  if (route == routes_.end()) return;
  Sinks& sinks = route->sinks;
  const auto found =
      std::ranges::find_if(sinks, [&](const auto& one) { return one.get() == sink; });
  if (found == sinks.end()) return;
  removed = std::move(*found);
  sinks.erase(found);
  if (sinks.empty()) routes_.erase(route);
}

Event_routes::Sinks Event_routes::find(const Key& key) const {
  const std::lock_guard lock(mutex_);
  const auto found = std::ranges::find(routes_, key, &Route::key);
  return found == routes_.end() ? Sinks{} : found->sinks;
}

}  // namespace someip
