/// The UDP and TCP ports of the services of a node.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>

#include "platform/someip/net/closed_ports.h"
#include "platform/someip/net/local_server.h"
#include "platform/someip/net/tcp_server.h"
#include "platform/someip/node/node_context.h"
#include "platform/someip/node/provided_instance.h"
#include "platform/someip/node/request_budget.h"

namespace someip {

/// Opens and shares the UDP and TCP ports of provided instances. The first instance that names a
/// port opens it, and every further one shares it. Ports stay open until close(). Any thread may
/// call all members, unless said otherwise.
class Service_ports {
 public:
  /// A client's TCP connection has ended. Called on the control thread.
  using Connection_lost = std::function<void(const Endpoint& client)>;

  /// `port_closed` is called on the control thread, from watch() to stop_watching().
  Service_ports(const Node_context& context,
                Connection_lost connection_lost,
                Closed_ports::Callback port_closed);
  ~Service_ports();
  Service_ports(const Service_ports&) = delete;
  Service_ports& operator=(const Service_ports&) = delete;

  /// The UDP port of an instance, null if it has none; its TCP port is opened too. Throws
  /// std::runtime_error naming the key when another process has one of them.
  std::shared_ptr<Udp_port> open(const Instance_deployment& instance);
  /// Its requests reach the instance from now on, until remove().
  void add(const std::shared_ptr<Provided_instance>& instance);
  void remove(const Provided_instance& instance);
  /// The connections at the TCP port of an instance; null if it has none.
  [[nodiscard]] std::shared_ptr<Tcp_server> connections(const Instance_deployment& instance);
  /// Serves a request of a client of the Unix socket.
  void serve(const Local_frame& frame, const std::shared_ptr<Local_connection>& client);

  // Control thread: ports of subscribers that their owners have closed

  void watch() { closed_.start(); }
  void stop_watching() { closed_.stop(); }
  /// Reports the ports found closed until now.
  void look_for_closed_ports() { closed_.look(); }

  void peer_restarted(const Address& peer, Time last_contact);
  void link_up();
  void link_down();
  /// Closes every connection and accepts no new one.
  void close_connections();
  void close();

 private:
  class Udp;
  class Tcp;

  [[nodiscard]] std::shared_ptr<Udp> udp(const Instance_deployment& instance);
  [[nodiscard]] std::shared_ptr<Tcp> tcp(const Instance_deployment& instance);
  /// The reason for refusing a connection of `peer`; empty: it may connect.
  [[nodiscard]] std::string_view obstacle(const Address& peer);

  const Node_context& context_;
  const Connection_lost connection_lost_;
  Request_budget requests_;

  std::mutex mutex_;  ///< guards the two members below
  std::map<std::uint16_t, std::shared_ptr<Udp>> udp_;
  std::map<std::uint16_t, std::shared_ptr<Tcp>> tcp_;

  Closed_ports closed_;
};

}  // namespace someip
