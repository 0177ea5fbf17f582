/// Service discovery of one node: reads what peers send, judges it, and drives both sides. Without
/// sockets and clocks: time and datagrams are handed in, messages are handed out.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "platform/someip/base/counters.h"
#include "platform/someip/base/deployment.h"
#include "platform/someip/base/log.h"
#include "platform/someip/discovery/discovery_client.h"
#include "platform/someip/discovery/discovery_outbox.h"
#include "platform/someip/discovery/discovery_server.h"

namespace someip {

/// Everything happens on one thread. Every member may change next_deadline().
class Discovery {
 public:
  struct Host {
    Discovery_server_host& server;
    Discovery_client_host& client;
    Discovery_outbox::Send send;
    /// Called before the entries of the message that showed it are worked on, for an address that
    /// speaks for itself. What has been seen of it after `last_contact` already belongs to its new
    /// life.
    std::function<void(const Address& peer, Time last_contact)> peer_restarted;
  };

  /// `own` is the address of the node; the references outlive this object.
  Discovery(const Deployment& deployment,
            const Node_deployment& node,
            const Address& own,
            Counters& counters,
            Log& log,
            Host host);

  /// A datagram that came to the group or to the own unicast endpoint.
  void received(Bytes datagram, const Endpoint& from, bool multicast, Time now);
  void on_time(Time now);
  /// Without link, nothing that peers have offered or subscribed is in force, nothing is sent, and
  /// nothing received counts. When it comes back everything begins as after the start; it is up at
  /// first.
  void link_changed(bool up, Time now);
  [[nodiscard]] Time next_deadline() const;

  /// Runs `work(server, client)` and sends what it leaves.
  template <class Work>
  void change(Time now, Work&& work) {
    std::forward<Work>(work)(server_, client_);
    settle(now);
  }

 private:
  void message(const Message_view& view, const Endpoint& from, bool multicast, Time now);
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
  [[nodiscard]] bool acceptable(const Endpoint& endpoint) const;
  /// Does any service allow it? Nothing is kept or answered otherwise.
  [[nodiscard]] bool welcome(const Origin& origin) const;
  void drop(const Endpoint& from, const char* why);
  void refuse_stranger(const Endpoint& stranger);
  void settle(Time now);

  const Deployment& deployment_;
  const Node_deployment& node_;
  const Address own_;
  Counters& counters_;
  Log& log_;
  Host host_;
  std::map<std::pair<std::uint16_t, std::uint8_t>, const Service_deployment*> services_;
  Discovery_delays delays_;
  Discovery_peers peers_;
  Discovery_outbox outbox_;
  Discovery_server server_;
  Discovery_client client_;
  bool link_up_ = true;
};

}  // namespace someip
