#include "platform/someip/node/subscriptions.h"

#include <algorithm>
#include <utility>

namespace someip {

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
    Selected_event& event = events_.emplace_back(Selected_event{selection, sink, {}, {}});
    if (const auto* offer = known_.find(selection.instance)) connect_route(event, *offer);
    discovery_.subscribe(selection.instance, selection.event_group, selection.group,
                         Time::clock::now());
    // A further sink of an active group is notified at once.
    if (discovery_.active(selection.instance, selection.event_group)) {
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
    return;
  }
  const auto hand_to = [&](std::shared_ptr<Event_sink>& sink, Received notification) {
    if (header.interface_version != sink->interface_version()) {
      counters.dropped_wrong_version.add();
      return;
    }
    counters.notifications_received.add();
    sink->set_value_seen(true);
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
    event.sink->subscription_changed(active);
  }
  if (!active) listeners_.leave({key, event_group});
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
