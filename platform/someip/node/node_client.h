/// The using side of a node: its port, and the parts that work for searches, subscriptions and
/// calls.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "mw/com/statistics.h"
#include "platform/someip/discovery/discovery.h"
#include "platform/someip/node/calls.h"
#include "platform/someip/node/causes.h"
#include "platform/someip/node/client_connections.h"
#include "platform/someip/node/known_instances.h"
#include "platform/someip/node/multicast_listeners.h"
#include "platform/someip/node/node_context.h"
#include "platform/someip/node/searches.h"
#include "platform/someip/node/subscriptions.h"

namespace someip {

/// Distributes the reports of discovery and the messages of servers to its parts.
class Node_client final : public Message_receiver, public Discovery_client_host {
 public:
  /// Opens the port of the node's client, if the node uses the network. Throws std::runtime_error
  /// naming the key. Does not use `discovery` before the control thread calls.
  Node_client(const Node_context& context, Discovery& discovery);

  [[nodiscard]] Searches& searches() { return searches_; }
  [[nodiscard]] Subscriptions& subscriptions() { return subscriptions_; }
  [[nodiscard]] Calls& calls() { return calls_; }

  // For the node

  /// Control thread: appends the consumed services and event groups.
  void list(mw::com::runtime::Peers& peers, Time now) const;
  /// The port receives from now on.
  void open() {
    if (port_) port_->open_with_threads();
  }
  /// Control thread: reconnects the connections to `peer` that were opened before `last_contact`.
  void peer_restarted(const Address& peer, Time last_contact) {
    connections_.restart(peer, last_contact);
  }
  /// Control thread: a message of an instance has come through the Unix socket.
  void received(const Local_frame& frame);
  /// Control thread: ends the timers, the multicast ports and the connections.
  void stop();
  /// Any other thread, after stop().
  void close_port() {
    if (port_) port_->close();
  }

 private:
  // Discovery_client_host
  void instance_available(const Instance_key& key, const Remote_offer& offer) override;
  void instance_gone(const Instance_key& key, const Loss& loss) override;
  void misfit_offered(const Misfit& misfit, Time now) override;
  void refused_by(const Origin& provider,
                  const Instance_key& key,
                  std::uint16_t event_group) override;
  bool has_delivered(const Instance_key& key, const Address& provider) override;
  void subscription_changed(const Instance_key& key,
                            std::uint16_t event_group,
                            bool active) override;
  void listen_to(const Instance_key& key,
                 std::uint16_t event_group,
                 const Endpoint& group) override;
  bool initial_value_missing(const Instance_key& key, std::uint16_t event_group) const override;
  Endpoint udp_endpoint() const override { return port_ ? port_->local() : local_end(); }
  void doubt_connection(const Endpoint& server) override { connections_.probe(server); }
  std::optional<Endpoint> tcp_endpoint(const Endpoint& server) override {
    return port_ ? connections_.local_end(server) : local_end();
  }
  /// The connection of the Unix socket receives, whatever endpoint is named.
  [[nodiscard]] Endpoint local_end() const { return {context_.own, 1}; }
  // Message_receiver: messages of the client's port and of the multicast ports
  void received(Received message, const Endpoint& from, Tasks& tasks) override;

  [[nodiscard]] std::shared_ptr<Udp_port> open_port();
  [[nodiscard]] Tcp_client::Events tcp_events();
  void dispatch(Received message, const Endpoint& from, Transport transport, Tasks& tasks);

  const Node_context& context_;
  Discovery& discovery_;
  const std::shared_ptr<Udp_port> port_;  ///< null: the node uses a Unix socket
  Known_instances known_;
  Client_connections connections_;
  Multicast_listeners listeners_;
  Subscriptions subscriptions_;
  Searches searches_;
  Calls calls_;
  Causes causes_;
};

}  // namespace someip
