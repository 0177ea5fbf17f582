#include "platform/someip/discovery/discovery_server.h"

#include <algorithm>
#include <utility>

namespace someip {

namespace {

Entry offer_entry(const Offer& offer, std::uint32_t ttl) {
  Entry entry;
  entry.type = Entry_type::offer_service;
  entry.service = offer.key.service;
  entry.instance = offer.key.instance;
  entry.major_version = offer.key.major_version;
  entry.minor_version = offer.minor_version;
  entry.ttl = ttl;
  return entry;
}

std::vector<Option> endpoint_options(const Instance_endpoints& endpoints) {
  std::vector<Option> options;
  if (endpoints.udp) options.push_back(Option::unicast(*endpoints.udp, udp_protocol));
  if (endpoints.tcp) options.push_back(Option::unicast(*endpoints.tcp, tcp_protocol));
  return options;
}

/// The endpoints of a subscription that its group needs. The others are redundant and ignored
/// (someipsd_1141).
Instance_endpoints used_endpoints(const Group_transport& transport, const Entry_options& options) {
  Instance_endpoints endpoints;
  if (transport.udp) endpoints.udp = options.udp;
  if (transport.tcp) endpoints.tcp = options.tcp;
  return endpoints;
}

}  // namespace

void Discovery_server::send_offer(const Local& local,
                                  std::uint32_t ttl,
                                  const Discovery_outbox::Destination& to,
                                  Time due) {
  outbox_.add(to, {offer_entry(local.offer, ttl)}, endpoint_options(local.offer.endpoints), due);
}

void Discovery_server::offer(Offer offer, Time now) {
  const Instance_key key = offer.key;
  if (offers_.contains(key)) return;
  Local local;
  local.offer = std::move(offer);
  begin_offer(local, now);
  // Clients of this machine receive it although the link is down.
  if (!link_up_) send_offer(local, timing_.offer_ttl, std::nullopt);
  for (const auto& [group, transport] : local.offer.groups)
    local.groups[group];
  offers_.emplace(key, std::move(local));
}

void Discovery_server::begin_offer(Local& local, Time now) {
  local.phase = Phase::initial_wait;
  local.repetitions = 0;
  local.next = link_up_ ? delays_.end_of_initial_wait(now) : Time::max();
}

void Discovery_server::stop_offer(const Instance_key& key, Time now) {
  const auto found = offers_.find(key);
  if (found == offers_.end()) return;
  if (found->second.phase != Phase::initial_wait || !link_up_) {
    send_offer(found->second, 0, std::nullopt, delays_.end_of_gathering(now));
  }
  end_all_subscriptions(found->second);
  offers_.erase(found);
  for (auto& [to, answer] : answers_)
    answer.instances.erase(key);
}

void Discovery_server::stop_all(Time now) {
  while (!offers_.empty())
    stop_offer(Instance_key(offers_.begin()->first), now);
}

void Discovery_server::end_all_subscriptions(Local& local) {
  for (auto& [group, state] : local.groups) {
    if (state.subscriptions.empty()) continue;
    host_.subscribers_changed(local.offer.key, group, {});
    host_.subscribers_settled(local.offer.key, group);
  }
}

Discovery_server::Answer* Discovery_server::answer_to(const Discovery_outbox::Destination& to,
                                                      Time now) {
  const auto known = answers_.find(to);
  if (known != answers_.end()) return &known->second;
  if (answers_.size() >= limits_.discovery_peers) return nullptr;
  return &answers_.emplace(to, Answer{delays_.answer_to_multicast(now), {}}).first->second;
}

void Discovery_server::find(
    const Entry& entry, const Origin& from, bool multicast, bool unicast_flag, Time now) {
  const Discovery_outbox::Destination to = unicast_flag ? std::optional(from.peer) : std::nullopt;
  for (auto at = offers_.lower_bound({entry.service, 0, 0});
       at != offers_.end() && at->first.service == entry.service; ++at) {
    const auto& [key, local] = *at;
    if (entry.instance != any_instance && entry.instance != key.instance) continue;
    if (entry.major_version != any_major_version && entry.major_version != key.major_version) {
      continue;
    }
    if (entry.minor_version != any_minor_version &&
        entry.minor_version != local.offer.minor_version) {
      continue;
    }
    // Clients of this machine do not need the link that the offer waits for.
    const bool waits = local.phase == Phase::initial_wait && (link_up_ || !from.local());
    if (waits || !allows(local.offer.allowed_peers, from)) continue;
    // The answers to finds in another's name wait, too, and leave together: such finds cannot flood
    // a third party.
    if (!multicast && from.direct()) {
      if (!outbox_.holds_offer(to, key, timing_.offer_ttl)) {
        send_offer(local, timing_.offer_ttl, to);
      }
      continue;
    }
    Answer* const answer = answer_to(to, now);
    if (answer == nullptr) {
      counters_.dropped_entries.add();
      return;
    }
    answer->instances.insert(key);
  }
}

void Discovery_server::refuse(Entry entry,
                              const Origin& to,
                              const Instance_endpoints& endpoints,
                              std::string_view cause,
                              Time now) {
  counters_.subscriptions_refused.add();
  const Refusal& refusal =
      refusals_.note(key_of(entry), entry.event_group, to, endpoints, cause, now);
  if (refusal.count == 1) host_.subscription_refused(refusal);
  // The peer in whose name a subscription came would take its refusal for the end of its own.
  if (!to.direct()) return;
  entry.type = Entry_type::subscribe_ack;
  entry.ttl = 0;
  entry.flags &= 0xFF0F;  // a refusal repeats reserved and counter only (someipsd_619)
  outbox_.add(to.peer, {entry}, {});
}

void Discovery_server::subscribe(const Entry& entry,
                                 const Entry_options& options,
                                 const Acceptable& acceptable,
                                 const Origin& from,
                                 bool explicit_initial_data,
                                 Time now) {
  const auto found = offers_.find(key_of(entry));
  const auto group = found == offers_.end() ? decltype(found->second.groups.begin()){}
                                            : found->second.groups.find(entry.event_group);
  const bool known = found != offers_.end() && group != found->second.groups.end();
  const bool stop = entry.ttl == 0;
  const Group_transport transport =
      known ? found->second.offer.groups.at(entry.event_group) : Group_transport{};
  const Instance_endpoints endpoints = used_endpoints(transport, options);
  const auto fault = [&]() -> std::string_view {
    if (found == offers_.end()) return cause_of_missing(entry);
    if (!known) return "there is no such event group";
    if (options.fault) return "its options are malformed";
    if (!acceptable(endpoints)) return "its endpoint is of another address or subnet";
    const auto& allowed = found->second.offer.allowed_peers;
    if (!allows(allowed, from, endpoints)) return "it is not an allowed peer";
    return {};
  }();
  if (!fault.empty()) {
    if (!stop) refuse(entry, from, {options.udp, options.tcp}, fault, now);
    return;
  }

  const Subscriber subscriber{from, endpoints, entry.counter()};
  if (stop) {
    const auto ended = std::erase_if(group->second.subscriptions,
                                     [&](const auto& one) { return one.subscriber == subscriber; });
    if (ended > 0) unsettled_ = group->second.changed = true;
    return;
  }

  const bool needs_udp = transport.udp && transport.multicast_threshold != 1;
  const auto obstacle = [&]() -> std::string_view {
    if (needs_udp && !endpoints.udp) return "it names no UDP endpoint";
    if (transport.tcp && !endpoints.tcp) return "it names no TCP endpoint";
    if (transport.tcp && !host_.has_connection(found->second.offer, *endpoints.tcp)) {
      return "its TCP connection does not stand";
    }
    if (!keep(group->second, subscriber, entry, explicit_initial_data, now)) {
      return "there are too many subscribers";
    }
    return {};
  }();
  if (!obstacle.empty()) {
    refuse(entry, from, endpoints, obstacle, now);
    return;
  }
  acknowledge(entry, from.local() ? Group_transport{} : transport, from);
}

std::string_view Discovery_server::cause_of_missing(const Entry& entry) const {
  const auto other = std::ranges::find_if(offers_, [&](const auto& offered) {
    return offered.first.service == entry.service && offered.first.instance == entry.instance;
  });
  return other == offers_.end() ? "there is no such instance"
                                : "the instance is offered in another version";
}

bool Discovery_server::keep(Group& group,
                            const Subscriber& subscriber,
                            const Entry& entry,
                            bool explicit_initial_data,
                            Time now) {
  auto& subscriptions = group.subscriptions;
  const Time expires = subscriber.origin.local()
                           ? Time::max()
                           : end_of_life(now, entry.ttl, timing_.longest_subscribe_ttl);
  const auto present =
      std::ranges::find(subscriptions, subscriber, &Accepted_subscription::subscriber);
  if (present != subscriptions.end()) {
    present->expires = expires;
    if (explicit_initial_data && entry.initial_data_requested()) {
      present->fresh = group.values_wanted = unsettled_ = true;
    }
  } else {
    const auto places = std::ranges::count_if(subscriptions, [&](const auto& one) {
      return one.subscriber.origin.sender == subscriber.origin.sender;
    });
    if (subscriptions.size() >= limits_.subscribers_per_event_group ||
        std::cmp_greater_equal(places, limits_.subscribers_per_address)) {
      counters_.refused_subscribers.add();
      return false;
    }
    const bool fresh = !explicit_initial_data || entry.initial_data_requested();
    const auto refused = refusals_.forget(key_of(entry), entry.event_group, subscriber.origin);
    subscriptions.push_back({subscriber, now, expires, fresh, refused, 0, {}});
    group.changed = unsettled_ = true;
    group.values_wanted |= fresh;
  }
  next_expiry_ = std::min(next_expiry_, expires);
  counters_.subscriptions_accepted.add();
  return true;
}

void Discovery_server::acknowledge(Entry entry,
                                   const Group_transport& transport,
                                   const Origin& to) {
  entry.type = Entry_type::subscribe_ack;
  std::vector<Option> multicast;
  if (transport.multicast && transport.multicast_threshold > 0) {
    multicast.push_back(Option::multicast(*transport.multicast));
  }
  outbox_.add(to.peer, {entry}, std::move(multicast));
}

template <class Predicate>
std::size_t Discovery_server::end_subscriptions(Predicate&& ends) {
  std::size_t ended = 0;
  for (auto& [key, local] : offers_) {
    for (auto& [group, state] : local.groups) {
      const std::size_t count = std::erase_if(state.subscriptions, ends);
      state.changed |= count > 0;
      ended += count;
    }
  }
  unsettled_ |= ended > 0;
  return ended;
}

void Discovery_server::forget_peer(const Origin& peer) {
  end_subscriptions([&](const auto& one) { return one.subscriber.origin == peer; });
  // A later client of this machine may get the same address.
  if (peer.local()) answers_.erase(peer.peer);
}

void Discovery_server::connection_lost(const Endpoint& client) {
  end_subscriptions([&](const auto& one) { return one.subscriber.endpoints.tcp == client; });
}

std::size_t Discovery_server::port_closed(const Endpoint& client) {
  const std::size_t ended =
      end_subscriptions([&](const auto& one) { return one.subscriber.endpoints.udp == client; });
  counters_.subscriptions_closed.add(ended);
  return ended;
}

void Discovery_server::link_down() {
  link_up_ = false;
  end_subscriptions([](const auto& one) { return !one.subscriber.origin.local(); });
  std::erase_if(answers_, [](const auto& answer) {
    return !answer.first || !is_local_address(answer.first->address);
  });
  for (auto& [key, local] : offers_)
    begin_offer(local, {});
}

void Discovery_server::link_up(Time now) {
  link_up_ = true;
  for (auto& [key, local] : offers_)
    begin_offer(local, now);
}

void Discovery_server::deliver_subscribers() {
  if (!unsettled_) return;
  for (auto& [key, local] : offers_) {
    for (auto& [group, state] : local.groups) {
      if (!state.changed) continue;
      std::vector<Subscriber> all;
      all.reserve(state.subscriptions.size());
      for (const Accepted_subscription& subscription : state.subscriptions)
        all.push_back(subscription.subscriber);
      host_.subscribers_changed(key, group, all);
      for (Accepted_subscription& subscription : state.subscriptions) {
        if (!subscription.sent_before) subscription.sent_before = host_.sent_to_all(key, group);
      }
    }
  }
}

void Discovery_server::deliver_initial_values() {
  if (!std::exchange(unsettled_, false)) return;
  for (auto& [key, local] : offers_) {
    for (auto& [group, state] : local.groups) {
      if (!state.changed && !state.values_wanted) continue;
      if (std::exchange(state.values_wanted, false)) {
        std::vector<Subscriber> fresh;
        for (const Accepted_subscription& subscription : state.subscriptions) {
          if (subscription.fresh) fresh.push_back(subscription.subscriber);
        }
        const std::size_t values = fresh.empty() ? 0 : host_.values_wanted(key, group, fresh);
        for (Accepted_subscription& subscription : state.subscriptions) {
          if (std::exchange(subscription.fresh, false)) subscription.values += values;
        }
      }
      state.changed = false;
      host_.subscribers_settled(key, group);
    }
  }
}

void Discovery_server::advance(Local& local, Time now) {
  if (local.phase == Phase::initial_wait) {
    local.phase = Phase::repetition;
  } else if (local.phase == Phase::repetition) {
    ++local.repetitions;
  }
  if (local.phase == Phase::repetition && local.repetitions >= timing_.repetitions_max) {
    local.phase = Phase::main;
  }
  if (local.phase == Phase::repetition) {
    local.next = now + delays_.repetition(local.repetitions);
  } else {
    local.next =
        timing_.cyclic_offer_delay.count() == 0 ? Time::max() : now + timing_.cyclic_offer_delay;
  }
}

void Discovery_server::on_time(Time now) {
  if (next_expiry_ <= now) {
    next_expiry_ = Time::max();
    counters_.subscriptions_expired.add(end_subscriptions([&](const auto& subscription) {
      if (subscription.expires <= now) return true;
      next_expiry_ = std::min(next_expiry_, subscription.expires);
      return false;
    }));
  }
  for (auto& [key, local] : offers_) {
    if (local.next > now) continue;
    send_offer(local, timing_.offer_ttl, std::nullopt);
    advance(local, now);
  }
  std::erase_if(answers_, [&](const auto& waiting) {
    const auto& [to, answer] = waiting;
    if (answer.due > now) return false;
    for (const Instance_key& key : answer.instances)
      send_offer(offers_.at(key), timing_.offer_ttl, to);
    return true;
  });
}

Time Discovery_server::next_deadline() const {
  Time next = next_expiry_;
  for (const auto& [key, local] : offers_)
    next = std::min(next, local.next);
  for (const auto& [to, answer] : answers_)
    next = std::min(next, answer.due);
  return next;
}

}  // namespace someip
