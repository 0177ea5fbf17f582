#include "platform/someip/node/known_instances.h"

#include <algorithm>
#include <utility>

namespace someip {

void Known_instances::add(const Instance_key& key, const Remote_offer& offer, Time now) {
  const std::lock_guard lock(mutex_);
  places_[key] = instances_.insert(instances_.end(), {key, offer, now});
}

std::optional<Remote_offer> Known_instances::remove(const Instance_key& key) {
  const std::lock_guard lock(mutex_);
  const auto place = places_.find(key);
  if (place == places_.end()) return std::nullopt;
  std::optional<Remote_offer> offer(std::move(place->second->offer));
  instances_.erase(place->second);
  places_.erase(place);
  return offer;
}

const Remote_offer* Known_instances::find(const Instance_key& key) const {
  const auto place = places_.find(key);
  return place == places_.end() ? nullptr : &place->second->offer;
}

bool Known_instances::offered_over_tcp(const Endpoint& server) const {
  return std::ranges::any_of(
      instances_, [&](const Instance& one) { return one.offer.endpoints.tcp == server; });
}

std::optional<Endpoint> Known_instances::endpoint_of(const Instance_key& key,
                                                     Transport transport) const {
  const std::lock_guard lock(mutex_);
  const Remote_offer* const offer = find(key);
  if (offer == nullptr) return std::nullopt;
  return transport == Transport::udp ? offer->endpoints.udp : offer->endpoints.tcp;
}

}  // namespace someip
