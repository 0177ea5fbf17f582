#include "platform/someip/node/subscriptions.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "platform/someip/base/hexadecimal.h"

namespace someip {

namespace {

/// A group without a notification for this long is said to be silent.
constexpr std::uint64_t silent_ms = 5000;

std::uint64_t milliseconds_since(Arrival_time arrival) {
  if (arrival == Arrival_time{}) return mw::com::runtime::never;
  const auto age = std::chrono::system_clock::now() - arrival;
  return static_cast<std::uint64_t>(
      std::max<std::int64_t>(0, std::chrono::duration_cast<Milliseconds>(age).count()));
}

std::size_t key_of(const Header& header, const Endpoint& from) {
  return Endpoint_hash{}(from) ^ (std::size_t{header.service} << 16U | header.method);
}

/// Empty for an event that the deployment has: a group may bring more events than are selected.
std::string text_of_unknown(const Deployment& deployment,
                            const Header& header,
                            const Endpoint& from) {
  for (const Service_deployment& service : deployment.services) {
    if (service.id != header.service) continue;
    const bool known = std::ranges::find(service.events, header.method, &Event_deployment::id) !=
                           service.events.end() ||
                       std::ranges::find(service.fields, std::optional(header.method),
                                         &Field_deployment::notifier) != service.fields.end();
    if (known) return {};
  }
  return "notifications of " + to_string(from) +
         " are dropped: " + name_of(deployment, header.service) + " has no event " +
         hexadecimal(header.method);
}

std::string for_seconds(std::uint64_t milliseconds) {
  return " for " + std::to_string(milliseconds / 1000) + " s";
}

std::string why_no_data(const mw::com::runtime::Consumed_event_group& row,
                        const Remote_offer* offer,
                        const Discovery_client::Subscription& subscription) {
  if (offer == nullptr) return "the instance is not offered";
  const std::string peer = to_string(offer->origin.peer);
  if (subscription.refused) return "refused by " + peer;
  if (!row.connected) return "no TCP connection to " + peer;
  if (!row.subscribed) return "not acknowledged by " + peer + for_seconds(row.sinceMs);
  const auto silence = std::min(row.lastNotificationMs, row.sinceMs);
  if (silence < silent_ms) return {};
  return "acknowledged, no data" + for_seconds(silence);
}

}  // namespace

Subscriptions::Subscriptions(const Node_context& context,
                             Discovery& discovery,
                             const Known_instances& known,
                             Client_connections& connections,
                             Multicast_listeners& listeners)
    : context_(context),
      discovery_(discovery),
      known_(known),
      connections_(connections),
      listeners_(listeners) {}

void Subscriptions::subscribe(const Event_selection& selection, std::shared_ptr<Event_sink> sink) {
  context_.control.post([this, selection, sink = std::move(sink)] {
    Selected_event& event =
        events_.emplace_back(Selected_event{selection, sink, Time::clock::now(), false, {}, {}});
    if (const auto* offer = known_.find(selection.instance)) connect_route(event, *offer);
    discovery_.subscribe(selection.instance, selection.event_group, selection.group,
                         Time::clock::now());
    // A further sink of an active group is notified at once.
    if (discovery_.active(selection.instance, selection.event_group)) {
      event.active = true;
      sink->subscription_changed(true);
    }
  });
}

void Subscriptions::unsubscribe(std::shared_ptr<Event_sink> sink) {
  context_.control.post([this, sink = std::move(sink)] {
    const auto found = std::ranges::find(events_, sink, &Selected_event::sink);
    if (found == events_.end()) return;
    note_delivery(found->selection.instance);
    const Selected_event ended = std::move(*found);
    events_.erase(found);
    if (ended.route) routes_.remove(*ended.route, sink.get());
    const Instance_key& instance = ended.selection.instance;
    const std::uint16_t event_group = ended.selection.event_group;
    discovery_.unsubscribe(instance, event_group, Time::clock::now());
    const bool still_wanted = std::ranges::any_of(events_, [&](const Selected_event& event) {
      return event.selection.instance == instance && event.selection.event_group == event_group;
    });
    if (!still_wanted) listeners_.leave({instance, event_group});
    if (!ended.connection) return;
    connections_.remove_subscription(*ended.connection);
    connections_.release_if_unused(*ended.connection);
  });
}

void Subscriptions::notification(Received message,
                                 const Endpoint& from,
                                 Transport transport,
                                 Tasks& tasks) {
  Counters& counters = context_.counters;
  const Header header = message.header;
  auto sinks = routes_.find({header.service, header.method, transport, from});
  if (sinks.empty() || header.code != 0) {
    counters.dropped_unexpected.add();
    context_.log.repeated("event", key_of(header, from),
                          [&] { return text_of_unknown(context_.deployment, header, from); });
    return;
  }
  const auto hand_to = [&](std::shared_ptr<Event_sink>& sink, Received notification) {
    if (header.interface_version != sink->interface_version()) {
      counters.dropped_wrong_version.add();
      return;
    }
    counters.notifications_received.add();
    sink->set_value_seen(true);
    // The kernel gives the arrival time of datagrams only.
    sink->set_last_arrival(notification.arrival != Arrival_time{}
                               ? notification.arrival
                               : std::chrono::system_clock::now());
    if (sink->enqueue(std::move(notification))) tasks.push_back(std::move(sink));
  };
  for (std::size_t i = 0; i + 1 < sinks.size(); ++i)
    hand_to(sinks[i], message);
  hand_to(sinks.back(), std::move(message));
}

void Subscriptions::instance_available(const Instance_key& key, const Remote_offer& offer) {
  for (Selected_event& event : events_) {
    if (event.selection.instance == key) connect_route(event, offer);
  }
}

void Subscriptions::connect_route(Selected_event& event, const Remote_offer& offer) {
  if (event.selection.group.tcp && offer.endpoints.tcp) {
    event.connection = offer.endpoints.tcp;
    connections_.add_subscription(*event.connection);
  }
  const auto& endpoint =
      event.selection.transport == Transport::udp ? offer.endpoints.udp : offer.endpoints.tcp;
  if (!endpoint) return;
  event.route = Event_routes::Key{event.selection.instance.service, event.selection.event,
                                  event.selection.transport, *endpoint};
  event.sink->set_value_seen(false);
  routes_.add(*event.route, event.sink);
}

void Subscriptions::instance_gone(const Instance_key& key) {
  note_delivery(key);
  for (Selected_event& event : events_) {
    if (event.selection.instance != key) continue;
    if (event.connection) {
      connections_.remove_subscription(*std::exchange(event.connection, std::nullopt));
    }
    if (event.route) {
      routes_.remove(*std::exchange(event.route, std::nullopt), event.sink.get());
    }
  }
}

void Subscriptions::state_changed(const Instance_key& key, std::uint16_t event_group, bool active) {
  if (!active) note_delivery(key);
  for (Selected_event& event : events_) {
    if (event.selection.instance != key || event.selection.event_group != event_group) continue;
    if (!active) event.sink->set_value_seen(false);
    event.active = active;
    event.since = Time::clock::now();
    event.sink->subscription_changed(active);
  }
  if (!active) listeners_.leave({key, event_group});
}

void Subscriptions::list(std::vector<mw::com::runtime::Consumed_event_group>& rows,
                         Time now) const {
  std::map<std::pair<Instance_key, std::uint16_t>, std::size_t> row_of;
  for (const Selected_event& event : events_) {
    const Event_selection& selection = event.selection;
    const auto [place, first] =
        row_of.try_emplace({selection.instance, selection.event_group}, rows.size());
    if (first) {
      if (rows.size() >= mw::com::runtime::Peers::max_rows) return;
      auto& row = rows.emplace_back();
      row.serviceId = selection.instance.service;
      row.instance = selection.instance.instance;
      row.eventGroup = selection.event_group;
      row.subscribed = event.active;
      row.sinceMs = milliseconds_between(event.since, now);
      row.lastNotificationMs = mw::com::runtime::never;
    }
    auto& row = rows[place->second];
    row.lastNotificationMs =
        std::min(row.lastNotificationMs, milliseconds_since(event.sink->last_arrival()));
  }
  for (const auto& [group, number] : row_of) {
    const auto subscription = discovery_.client().subscriptions().find(group);
    if (subscription == discovery_.client().subscriptions().end()) continue;
    auto& row = rows[number];
    const Remote_offer* const offer = known_.find(group.first);
    const auto& [_, state] = *subscription;
    row.connected =
        offer != nullptr &&
        (!state.transport.tcp || state.state != Discovery_client::State::none || state.refused);
    row.cause = why_no_data(row, offer, state);
  }
}

bool Subscriptions::initial_value_missing(const Instance_key& key,
                                          std::uint16_t event_group) const {
  return std::ranges::any_of(events_, [&](const Selected_event& event) {
    return event.selection.instance == key && event.selection.event_group == event_group &&
           event.selection.field && !event.sink->value_seen();
  });
}

void Subscriptions::note_delivery(const Instance_key& key) {
  if (first_deliveries_.contains(key) ||
      first_deliveries_.size() >= context_.deployment.limits.remote_instances) {
    return;
  }
  const bool delivered = std::ranges::any_of(events_, [&](const Selected_event& event) {
    return event.selection.instance == key && event.sink->value_seen();
  });
  const Remote_offer* const offer = delivered ? known_.find(key) : nullptr;
  if (offer == nullptr) return;
  first_deliveries_.emplace(key, First_delivery{offer->origin.sender, first_deliveries_.size()});
}

std::optional<std::size_t> Subscriptions::delivery_rank(const Instance_key& key,
                                                        const Address& provider) {
  note_delivery(key);
  const auto first = first_deliveries_.find(key);
  if (first == first_deliveries_.end() || first->second.provider != provider) return std::nullopt;
  return first->second.rank;
}

}  // namespace someip
