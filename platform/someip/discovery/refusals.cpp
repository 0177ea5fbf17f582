#include "platform/someip/discovery/refusals.h"

#include <algorithm>

namespace someip {

std::vector<Refusal>::iterator Refusals::find(const Instance_key& key,
                                              std::uint16_t event_group,
                                              const Origin& from) {
  return std::ranges::find_if(all_, [&](const Refusal& one) {
    return one.key == key && one.event_group == event_group && one.from == from;
  });
}

const Refusal& Refusals::note(const Instance_key& key,
                              std::uint16_t event_group,
                              const Origin& from,
                              const Instance_endpoints& endpoints,
                              std::string_view cause,
                              Time now) {
  const auto known = find(key, event_group, from);
  if (known == all_.end()) {
    if (all_.size() >= most) all_.erase(std::ranges::min_element(all_, {}, &Refusal::last));
    return all_.emplace_back(Refusal{key, event_group, from, endpoints, cause, now, now, 1});
  }
  known->endpoints = endpoints;
  known->cause = cause;
  known->last = now;
  ++known->count;
  return *known;
}

std::uint64_t Refusals::forget(const Instance_key& key,
                               std::uint16_t event_group,
                               const Origin& from) {
  const auto known = find(key, event_group, from);
  if (known == all_.end()) return 0;
  const std::uint64_t count = known->count;
  all_.erase(known);
  return count;
}

}  // namespace someip
