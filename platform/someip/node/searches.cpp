#include "platform/someip/node/searches.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <utility>

namespace someip {

namespace {
/// A result lists every instance. A peer that changes one of many again and again must not make the
/// node work through all of them each time: this pause per instance keeps that below some percent
/// of a processor.
constexpr std::chrono::microseconds pause_per_instance{10};
}  // namespace

Searches::Searches(const Node_context& context,
                   Discovery& discovery,
                   const Known_instances& known,
                   Subscriptions& subscriptions)
    : context_(context),
      discovery_(discovery),
      known_(known),
      subscriptions_(subscriptions),
      timer_(context.control) {}

void Searches::start(const Service_deployment& service,
                     std::uint16_t instance,
                     std::shared_ptr<Search_sink> sink) {
  const Instance_key wanted{service.id, instance, service.major_version};
  context_.control.post([this, wanted, sink = std::move(sink)] {
    const Running_search search{wanted, sink};
    searches_.push_back(search);
    discovery_.start_search(wanted, Time::clock::now());
    deliver(search);
  });
}

void Searches::stop(std::shared_ptr<Search_sink> sink) {
  context_.control.post([this, sink = std::move(sink)] {
    const auto found = std::ranges::find(searches_, sink, &Running_search::sink);
    if (found == searches_.end()) return;
    const Instance_key wanted = found->wanted;
    searches_.erase(found);
    discovery_.stop_search(wanted, Time::clock::now());
  });
}

void Searches::deliver(const Running_search& search) {
  std::map<std::size_t, std::uint16_t> delivered;  // by their rank
  std::vector<std::uint16_t> others;
  for (const auto& [key, offer] : known_.all()) {
    if (!matches(search.wanted, key)) continue;
    if (const auto rank = subscriptions_.delivery_rank(key, offer.origin.sender)) {
      delivered.emplace(*rank, key.instance);
    } else {
      others.push_back(key.instance);
    }
  }
  std::vector<std::uint16_t> found;
  found.reserve(delivered.size() + others.size());
  for (const auto& [rank, instance] : delivered)
    found.push_back(instance);
  found.insert(found.end(), others.begin(), others.end());
  search.sink->found(found);
}

void Searches::instances_changed(std::uint16_t service) {
  bool changed = false;
  for (Running_search& search : searches_) {
    if (search.wanted.service == service) changed = search.changed = true;
  }
  if (!changed || std::exchange(delivery_due_, true)) return;
  const auto known = static_cast<std::int64_t>(known_.all().size());
  timer_.run_at(delivered_ + pause_per_instance * known, [this] { deliver_changed(); });
}

void Searches::deliver_changed() {
  delivery_due_ = false;
  delivered_ = Time::clock::now();
  for (Running_search& search : searches_) {
    if (std::exchange(search.changed, false)) deliver(search);
  }
}

}  // namespace someip
