#include "platform/someip/discovery/discovery_client.h"

#include <algorithm>
#include <utility>

namespace someip {

bool Discovery_client::satisfied(const Instance_key& wanted) const {
  return std::ranges::any_of(remotes_,
                             [&](const auto& remote) { return matches(wanted, remote.first); });
}

void Discovery_client::begin_search(Search& search, Time now) {
  search.phase = Phase::initial_wait;
  search.repetitions = 0;
  search.next = link_up_ ? delays_.end_of_initial_wait(now) : Time::max();
}

void Discovery_client::start_search(const Instance_key& wanted, Time now) {
  Search& search = searches_[wanted];
  if (search.users++ > 0 && search.phase != Phase::silent) return;
  if (satisfied(wanted) && wanted.instance != any_instance) {
    search.phase = Phase::silent;
    return;
  }
  // A search for any instance sends at least one find: more may exist than have sent an offer.
  begin_search(search, now);
}

void Discovery_client::stop_search(const Instance_key& wanted) {
  const auto found = searches_.find(wanted);
  if (found != searches_.end() && --found->second.users == 0) searches_.erase(found);
}

Entry Discovery_client::subscribe_entry(const Group_key& key,
                                        const Subscription& subscription,
                                        std::uint32_t ttl) {
  Entry entry;
  entry.type = Entry_type::subscribe;
  entry.service = key.first.service;
  entry.instance = key.first.instance;
  entry.major_version = key.first.major_version;
  entry.event_group = key.second;
  entry.ttl = ttl;
  if (subscription.initial_data) entry.flags |= Entry::initial_data_flag;
  return entry;
}

std::optional<std::vector<Option>> Discovery_client::own_endpoints(const Group_transport& transport,
                                                                   const Remote& remote) {
  std::vector<Option> options;
  if (transport.udp) options.push_back(Option::unicast(host_.udp_endpoint(), udp_protocol));
  if (transport.tcp) {
    if (!remote.offer.endpoints.tcp) return std::nullopt;
    const auto own = host_.tcp_endpoint(*remote.offer.endpoints.tcp);
    if (!own) return std::nullopt;
    options.push_back(Option::unicast(*own, tcp_protocol));
  }
  return options;
}

void Discovery_client::set_state(const Group_key& key, Subscription& subscription, State state) {
  const bool was_active = subscription.state == State::active;
  subscription.state = state;
  subscription.supervised = false;
  if (state != State::active) subscription.expires = Time::max();
  if (was_active != (state == State::active)) {
    host_.subscription_changed(key.first, key.second, !was_active);
  }
}

void Discovery_client::request(const Group_key& key,
                               Subscription& subscription,
                               const Remote& remote,
                               bool by_multicast) {
  const auto options = own_endpoints(subscription.transport, remote);
  if (!options) return;
  const bool active = subscription.state == State::active;
  const bool unanswered = by_multicast && subscription.supervised;
  const bool no_value =
      by_multicast && active && host_.initial_value_missing(key.first, key.second);
  const bool again = unanswered || no_value || subscription.refresh;
  std::vector<Entry> entries;
  // A server that cannot read the flag sends values again only after a stop (someipsd_844), right
  // in front of the subscription (someipsd_1178).
  if (again && !remote.explicit_initial_data) {
    entries.push_back(subscribe_entry(key, subscription, 0));
  }
  subscription.initial_data = !active || again;
  entries.push_back(subscribe_entry(key, subscription, timing_.subscribe_ttl));
  outbox_.add(remote.offer.origin.peer, std::move(entries), *options);
  if (!active) subscription.state = State::requested;
  subscription.supervised = by_multicast;
  subscription.refresh = false;
  subscription.gathered = false;
}

void Discovery_client::request_all(const Instance_key& key, bool by_multicast) {
  const auto remote = remotes_.find(key);
  if (remote == remotes_.end()) return;
  for (auto& [group, subscription] : subscriptions_) {
    if (group.first == key) request(group, subscription, remote->second, by_multicast);
  }
}

void Discovery_client::subscribe(const Instance_key& key,
                                 std::uint16_t event_group,
                                 const Group_transport& transport,
                                 Time now) {
  Subscription& subscription = subscriptions_[{key, event_group}];
  subscription.transport = transport;
  if (subscription.users++ > 0 && subscription.state != State::none) subscription.refresh = true;
  const auto remote = remotes_.find(key);
  if (remote == remotes_.end()) return;
  // Begins to connect now if the group needs a connection: connected() follows then.
  if (own_endpoints(transport, remote->second)) request_with_others(subscription, now);
}

void Discovery_client::request_with_others(Subscription& subscription, Time now) {
  subscription.gathered = true;
  gathering_end_ = delays_.end_of_gathering(now);
}

void Discovery_client::unsubscribe(const Instance_key& key, std::uint16_t event_group, Time now) {
  const auto found = subscriptions_.find({key, event_group});
  if (found == subscriptions_.end() || --found->second.users > 0) return;
  const auto remote = remotes_.find(key);
  if (remote != remotes_.end() && found->second.state != State::none) {
    if (const auto options = own_endpoints(found->second.transport, remote->second)) {
      outbox_.add(remote->second.offer.origin.peer,
                  {subscribe_entry(found->first, found->second, 0)}, *options,
                  delays_.end_of_gathering(now));
    }
  }
  subscriptions_.erase(found);
}

bool Discovery_client::active(const Instance_key& key, std::uint16_t event_group) const {
  const auto found = subscriptions_.find({key, event_group});
  return found != subscriptions_.end() && found->second.state == State::active;
}

std::optional<Time> Discovery_client::end_of_offer(const Instance_key& key) const {
  const auto found = remotes_.find(key);
  return found == remotes_.end() ? std::nullopt : std::optional(found->second.expires);
}

void Discovery_client::unsubscribe_all(Time now) {
  while (!subscriptions_.empty()) {
    const Group_key key = subscriptions_.begin()->first;
    subscriptions_.begin()->second.users = 1;
    unsubscribe(key.first, key.second, now);
  }
}

Discovery_client::Remotes::iterator Discovery_client::remove(Remotes::iterator remote,
                                                             Loss::Cause cause,
                                                             bool restart,
                                                             Time now) {
  const Instance_key key = remote->first;
  const Origin origin = remote->second.offer.origin;
  const Loss loss{cause, origin, now - remote->second.renewed};
  const auto next = remotes_.erase(remote);
  const auto offered = offered_by_.find(origin.sender);
  if (--offered->second == 0) offered_by_.erase(offered);
  if (const auto waiting = triggers_.find(origin.peer); waiting != triggers_.end()) {
    waiting->second.instances.erase(key);
  }
  for (auto& [group, subscription] : subscriptions_) {
    if (group.first != key) continue;
    set_state(group, subscription, State::none);
    subscription.refused = false;
  }
  host_.instance_gone(key, loss);
  if (restart) {
    for (auto& [search_key, search] : searches_) {
      if (matches(search_key, key) && !satisfied(search_key)) begin_search(search, now);
    }
  }
  return next;
}

void Discovery_client::trigger(const Instance_key& key,
                               const Endpoint& peer,
                               bool multicast,
                               Time now) {
  Trigger& trigger = triggers_[peer];
  const Time due = multicast ? delays_.answer_to_multicast(now) : now;
  if (trigger.instances.empty() || due < trigger.due) trigger.due = due;
  trigger.instances[key] |= multicast;
}

void Discovery_client::offered(const Entry& entry,
                               const Instance_endpoints& endpoints,
                               const Origin& from,
                               bool multicast,
                               bool explicit_initial_data,
                               Time now) {
  const Instance_key key = key_of(entry);
  auto known = remotes_.find(key);
  if (known != remotes_.end() && !from.speaks_for(known->second.offer.origin)) {
    // An instance stays with its provider until that stops or its time is over, or until the one
    // that delivered it before comes back.
    if (entry.ttl == 0 || !host_.has_delivered(key, from.sender)) {
      counters_.refused_instances.add();
      return;
    }
    remove(known, Loss::Cause::replaced, false, now);
    known = remotes_.end();
  }
  if (entry.ttl == 0) {
    // No find follows: a provider that returns sends an offer (someipsd_834).
    if (known != remotes_.end()) remove(known, Loss::Cause::stop_offer, false, now);
    return;
  }
  if (known != remotes_.end() &&
      (known->second.offer.origin != from || !(known->second.offer.endpoints == endpoints))) {
    remove(known, Loss::Cause::moved, false, now);
    known = remotes_.end();
  }
  if (known == remotes_.end()) {
    const auto offered = offered_by_.find(from.sender);
    if (remotes_.size() >= limits_.remote_instances ||
        (offered != offered_by_.end() && offered->second >= limits_.remote_instances_per_address)) {
      counters_.refused_instances.add();
      return;
    }
    const Remote_offer offer{from, entry.minor_version, endpoints};
    known = remotes_.emplace(key, Remote{offer, false, now, {}}).first;
    ++offered_by_[from.sender];
    for (auto& [search_key, search] : searches_) {
      // The first find of a search for any instance still has to go out.
      const bool find_first =
          search_key.instance == any_instance && search.phase == Phase::initial_wait;
      if (matches(search_key, key) && !find_first) search.phase = Phase::silent;
    }
    host_.instance_available(key, offer);
  }
  known->second.explicit_initial_data = explicit_initial_data;
  known->second.renewed = now;
  known->second.expires = end_of_life(now, entry.ttl, timing_.longest_offer_ttl);
  const bool wanted = std::ranges::any_of(
      subscriptions_, [&](const auto& subscription) { return subscription.first.first == key; });
  next_expiry_ = std::min(next_expiry_, known->second.expires);
  if (wanted) trigger(key, from.peer, multicast, now);
}

void Discovery_client::acknowledged(const Entry& entry,
                                    const Entry_options& options,
                                    const Origin& from,
                                    Time now) {
  const Instance_key key = key_of(entry);
  const auto remote = remotes_.find(key);
  const auto found = subscriptions_.find({key, entry.event_group});
  if (remote == remotes_.end() || found == subscriptions_.end() ||
      !from.speaks_for(remote->second.offer.origin) || found->second.state == State::none ||
      options.fault) {
    counters_.dropped_entries.add();
    return;
  }
  if (entry.ttl == 0) {
    set_state(found->first, found->second, State::none);
    if (!std::exchange(found->second.refused, true)) host_.refused_by(from, key, entry.event_group);
    const auto& tcp = remote->second.offer.endpoints.tcp;
    if (found->second.transport.tcp && tcp) host_.doubt_connection(*tcp);  // someipsd_869
    return;
  }
  if (options.multicast) host_.listen_to(key, entry.event_group, *options.multicast);
  set_state(found->first, found->second, State::active);
  found->second.refused = false;
  found->second.expires = end_of_life(now, timing_.subscribe_ttl, endless_ttl);
}

void Discovery_client::forget_peer(const Origin& peer, Time now) {
  for (auto remote = remotes_.begin(); remote != remotes_.end();) {
    remote = remote->second.offer.origin == peer
                 ? remove(remote, Loss::Cause::peer_restarted, true, now)
                 : std::next(remote);
  }
}

void Discovery_client::connected(const Endpoint& server, Time now) {
  for (const auto& [key, remote] : remotes_) {
    if (!(remote.offer.endpoints.tcp == server)) continue;
    for (auto& [group, subscription] : subscriptions_) {
      if (group.first == key && subscription.transport.tcp && subscription.state == State::none) {
        request_with_others(subscription, now);
      }
    }
  }
}

void Discovery_client::connection_lost(const Endpoint& server) {
  for (auto& [key, remote] : remotes_) {
    if (!(remote.offer.endpoints.tcp == server)) continue;
    for (auto& [group, subscription] : subscriptions_) {
      if (group.first == key && subscription.transport.tcp) {
        set_state(group, subscription, State::none);
      }
    }
  }
}

void Discovery_client::link_down(Time now) {
  link_up_ = false;
  while (!remotes_.empty())
    remove(remotes_.begin(), Loss::Cause::link_down, false, now);
  triggers_.clear();
  for (auto& [key, search] : searches_)
    begin_search(search, now);
}

void Discovery_client::link_up(Time now) {
  link_up_ = true;
  for (auto& [key, search] : searches_)
    begin_search(search, now);
}

void Discovery_client::on_time(Time now) {
  // Any datagram comes past here: it must not cost a look at every offer.
  const bool expired = next_expiry_ <= now;
  if (expired) next_expiry_ = Time::max();
  for (auto remote = remotes_.begin(); expired && remote != remotes_.end();) {
    if (remote->second.expires > now) {
      next_expiry_ = std::min(next_expiry_, remote->second.expires);
      ++remote;
      continue;
    }
    counters_.offers_expired.add();
    remote = remove(remote, Loss::Cause::not_renewed, true, now);
  }
  for (auto& [key, subscription] : subscriptions_) {
    if (subscription.expires <= now) set_state(key, subscription, State::none);
  }
  for (auto& [key, search] : searches_) {
    if (search.phase == Phase::silent || search.next > now) continue;
    Entry entry;
    entry.type = Entry_type::find_service;
    entry.service = key.service;
    entry.instance = key.instance;
    entry.major_version = key.major_version;
    entry.minor_version = any_minor_version;
    entry.ttl = timing_.subscribe_ttl;
    outbox_.add(std::nullopt, {entry}, {});
    if (search.phase == Phase::repetition) ++search.repetitions;
    search.phase = search.repetitions >= timing_.repetitions_max || satisfied(key)
                       ? Phase::silent
                       : Phase::repetition;
    search.next = now + delays_.repetition(search.repetitions);
  }
  if (gathering_end_ <= now) {
    gathering_end_ = Time::max();
    for (auto& [key, subscription] : subscriptions_) {
      if (!std::exchange(subscription.gathered, false)) continue;
      const auto remote = remotes_.find(key.first);
      if (remote != remotes_.end()) request(key, subscription, remote->second, false);
    }
  }
  for (auto& [peer, trigger] : triggers_) {
    if (trigger.due > now) continue;
    for (const auto& [key, multicast] : std::exchange(trigger.instances, {})) {
      request_all(key, multicast);
    }
  }
  std::erase_if(triggers_, [](const auto& trigger) { return trigger.second.instances.empty(); });
}

Time Discovery_client::next_deadline() const {
  Time next = std::min(next_expiry_, gathering_end_);
  for (const auto& [key, search] : searches_) {
    if (search.phase != Phase::silent) next = std::min(next, search.next);
  }
  for (const auto& [key, subscription] : subscriptions_) {
    next = std::min(next, subscription.expires);
  }
  for (const auto& [peer, trigger] : triggers_) {
    if (!trigger.instances.empty()) next = std::min(next, trigger.due);
  }
  return next;
}

}  // namespace someip
