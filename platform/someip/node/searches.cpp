#include "platform/someip/node/searches.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
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
    const Time now = Time::clock::now();
    const Running_search search{wanted, sink, now};
    searches_.push_back(search);
    discovery_.start_search(wanted, now);
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
  for (const auto& [key, offer, since] : known_.all()) {
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

bool Searches::want(std::uint16_t service) const {
  return std::ranges::any_of(
      searches_, [&](const Running_search& one) { return one.wanted.service == service; });
}

void Searches::list(std::vector<mw::com::runtime::Consumed_service>& rows,
                    const Causes& causes,
                    Time now) const {
  std::set<Instance_key> listed;
  for (const Running_search& search : searches_) {
    mw::com::runtime::Consumed_service row;
    row.service = name_of(context_.deployment, search.wanted.service);
    row.serviceId = search.wanted.service;
    row.instance = search.wanted.instance;
    row.majorVersion = search.wanted.major_version;
    bool found = false;
    for (const auto& [key, offer, since] : known_.all()) {
      if (!matches(search.wanted, key)) continue;
      found = true;
      if (rows.size() >= mw::com::runtime::Peers::max_rows) return;
      if (!listed.insert(key).second) continue;
      row.instance = key.instance;
      row.found = true;
      row.address = offer.origin.peer.address.to_string();
      row.udpPort = offer.endpoints.udp ? offer.endpoints.udp->port : std::uint16_t{0};
      row.tcpPort = offer.endpoints.tcp ? offer.endpoints.tcp->port : std::uint16_t{0};
      row.sinceMs = milliseconds_between(since, now);
      row.ttlLeftMs =
          milliseconds_between(now, discovery_.client().end_of_offer(key).value_or(now));
      row.cause = causes.why_incomplete(key, now);
      rows.push_back(row);
    }
    if (found || !listed.insert(search.wanted).second) continue;
    if (rows.size() >= mw::com::runtime::Peers::max_rows) return;
    const Time since = std::max(search.since, causes.lost_since(search.wanted));
    row.sinceMs = milliseconds_between(since, now);
    row.cause = causes.why_missing(search.wanted, since, now);
    rows.push_back(row);
  }
}

void Searches::deliver_changed() {
  delivery_due_ = false;
  delivered_ = Time::clock::now();
  for (Running_search& search : searches_) {
    if (std::exchange(search.changed, false)) deliver(search);
  }
}

}  // namespace someip
