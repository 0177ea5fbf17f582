/// The node's subscriptions: the events that the process has selected, and the path of a
/// notification to its sinks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "mw/com/statistics.h"
#include "platform/someip/discovery/discovery.h"
#include "platform/someip/node/causes.h"
#include "platform/someip/node/client_connections.h"
#include "platform/someip/node/event_routes.h"
#include "platform/someip/node/known_instances.h"
#include "platform/someip/node/multicast_listeners.h"
#include "platform/someip/node/node_context.h"

namespace someip {

/// One event of an instance, as a subscriber selects it.
struct Event_selection {
  Instance_key instance;
  std::uint16_t event = 0;
  std::uint16_t event_group = 0;
  Transport transport = Transport::udp;  ///< of the event
  Group_transport group;                 ///< of all events of the group
  bool field = false;
};

/// Subscribes to selected events and passes their notifications to sinks. Each section of members
/// names the thread that calls it.
class Subscriptions {
 public:
  Subscriptions(const Node_context& context,
                Discovery& discovery,
                const Known_instances& known,
                Client_connections& connections,
                Multicast_listeners& listeners);

  // Any thread

  /// Notifications reach `sink` from the first offer of the instance on, until unsubscribe().
  void subscribe(const Event_selection& selection, std::shared_ptr<Event_sink> sink);
  void unsubscribe(std::shared_ptr<Event_sink> sink);

  // The receiving threads

  /// Passes a notification to its sinks; drops and counts a notification without a subscription.
  void notification(Received message, const Endpoint& from, Transport transport, Tasks& tasks);

  // The control thread

  void instance_available(const Instance_key& key, const Remote_offer& offer);
  /// Call it while the instance is still known.
  void instance_gone(const Instance_key& key);
  void state_changed(const Instance_key& key, std::uint16_t event_group, bool active);
  /// Appends the event groups of all selected events.
  void list(std::vector<mw::com::runtime::Consumed_event_group>& rows, Time now) const;
  /// True if an active subscription to fields of the group has not brought a value yet.
  [[nodiscard]] bool initial_value_missing(const Instance_key& key,
                                           std::uint16_t event_group) const;
  /// The number of instances that delivered an event before this one, if `provider` was the first
  /// to deliver events of the instance.
  [[nodiscard]] std::optional<std::size_t> delivery_rank(const Instance_key& key,
                                                         const Address& provider);

 private:
  struct Selected_event {
    Event_selection selection;
    std::shared_ptr<Event_sink> sink;
    Time since;   ///< of the last change of `active`
    bool active;  ///< acknowledged
    // While the instance is offered:
    std::optional<Event_routes::Key> route;
    std::optional<Endpoint> connection;  ///< the server that a group over TCP needs one to
  };
  struct First_delivery {
    Address provider;
    std::size_t rank;  ///< number of instances that delivered before
  };

  void connect_route(Selected_event& event, const Remote_offer& offer);
  /// Remembers the provider of the instance if it is the first that has delivered an event.
  void note_delivery(const Instance_key& key);

  const Node_context& context_;
  Discovery& discovery_;
  const Known_instances& known_;
  Client_connections& connections_;
  Multicast_listeners& listeners_;
  Event_routes routes_;

  // The control thread's own.
  std::vector<Selected_event> events_;
  std::map<Instance_key, First_delivery> first_deliveries_;
};

}  // namespace someip
