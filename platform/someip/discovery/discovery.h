/// Service discovery of one node: judges the messages of peers and drives both sides. It has no
/// socket and no clock: its owner passes in time and datagrams and receives the messages to send.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "platform/someip/base/counters.h"
#include "platform/someip/base/deployment.h"
#include "platform/someip/base/log.h"
#include "platform/someip/discovery/discovery_client.h"
#include "platform/someip/discovery/discovery_delays.h"
#include "platform/someip/discovery/discovery_outbox.h"
#include "platform/someip/discovery/discovery_peers.h"
#include "platform/someip/discovery/discovery_server.h"

namespace someip {

/// Decides on every received discovery message and on the messages to send. Lives on one thread.
/// Each member that takes the time also sends the messages that are due, and passes the next
/// deadline to its host.
class Discovery {
 public:
  struct Host {
    Discovery_server_host& server;
    Discovery_client_host& client;
    Discovery_outbox::Send send;
    /// on_time() is due at this time, which replaces the one before. Time::max(): nothing waits.
    std::function<void(Time)> deadline;
    /// Called for an address that speaks for itself, before discovery evaluates the entries of the
    /// message that showed the restart. Contact after `last_contact` belongs to the peer's new
    /// life.
    std::function<void(const Address& peer, Time last_contact)> peer_restarted;
  };

  /// `own` is the address of the node; the references outlive this object. The constructor does
  /// not call the host.
  Discovery(const Deployment& deployment,
            const Node_deployment& node,
            const Address& own,
            Counters& counters,
            Log& log,
            Host host);

  /// A datagram that came to the group or to the own unicast endpoint, or a message of a Unix
  /// socket. The latter comes from an address of local_address(). No list of peers, no link and no
  /// session counter concerns it, because the connection stands for its sender. Its subscriptions
  /// last as long as the connection.
  void received(Bytes datagram, const Endpoint& from, bool multicast, Time now);
  void on_time(Time now);
  /// Without link, offers and subscriptions of peers are void, nothing is sent, and received
  /// datagrams are ignored. When the link returns, offers and searches begin as after the start.
  /// The link counts as up at first.
  void link_changed(bool up, Time now);
  /// Withdraws every offer and subscription.
  void withdraw_all(Time now);

  // The providing side

  void offer(Offer offer, Time now);
  void stop_offer(const Instance_key& key, Time now);
  /// Ends the subscriptions over a client's TCP connection, which has ended.
  void client_lost(const Endpoint& client, Time now);
  /// A client has closed the port that receives its events, which ends its subscriptions there.
  /// Returns their number.
  std::size_t port_closed(const Endpoint& client, Time now);

  /// Ends the subscriptions of a client of the Unix socket, which has disconnected.
  void local_client_lost(const Endpoint& client, Time now);

  // The using side

  /// The instance may be any_instance. Searches are counted: each needs its stop.
  void start_search(const Instance_key& wanted, Time now);
  void stop_search(const Instance_key& wanted, Time now);
  /// Subscriptions are counted: each needs its unsubscribe(). A second one asks the provider for
  /// the present values again. The entries of consecutive calls leave together.
  void subscribe(const Instance_key& key,
                 std::uint16_t event_group,
                 const Group_transport& transport,
                 Time now);
  void unsubscribe(const Instance_key& key, std::uint16_t event_group, Time now);
  /// True if the provider has acknowledged the subscription.
  [[nodiscard]] bool active(const Instance_key& key, std::uint16_t event_group) const {
    return client_.active(key, event_group);
  }
  [[nodiscard]] const Discovery_client& client() const { return client_; }
  [[nodiscard]] const Discovery_server& server() const { return server_; }
  /// The TCP connection to `server` stands, or broke.
  void connected(const Endpoint& server, Time now);
  void connection_lost(const Endpoint& server, Time now);

 private:
  void message(const Message_view& view, const Endpoint& from, bool multicast, Time now);
  void entries(const Discovery_message& message, const Origin& from, bool multicast, Time now);
  void entry(const Discovery_message& message,
             const Entry& entry,
             const Origin& from,
             bool multicast,
             Time now);
  void offer_entry(const Discovery_message& message,
                   const Entry& entry,
                   const Origin& from,
                   bool multicast,
                   Time now);
  void misfit(Misfit::Cause cause, const Entry& entry, const Origin& from, Time now);
  [[nodiscard]] bool acceptable(const Endpoint& endpoint) const;
  /// True if a service allows it. Messages of every other origin are neither kept nor answered.
  [[nodiscard]] bool welcome(const Origin& origin) const;
  void drop(const Endpoint& from, const char* why);
  void refuse_stranger(const Endpoint& stranger);
  /// Sends the entries that the preceding change has made due, and passes on the next deadline.
  void settle(Time now);

  const Deployment& deployment_;
  const Node_deployment& node_;
  const Address own_;
  Counters& counters_;
  Log& log_;
  Host host_;
  struct Known_service {
    const Service_deployment* deployment;
    bool needs_udp, needs_tcp;  ///< for one of its elements at least
  };
  std::map<std::pair<std::uint16_t, std::uint8_t>, Known_service> services_;
  Discovery_delays delays_;
  Discovery_peers peers_;
  Discovery_outbox outbox_;
  Discovery_server server_;
  Discovery_client client_;
  bool link_up_ = true;
};

}  // namespace someip
