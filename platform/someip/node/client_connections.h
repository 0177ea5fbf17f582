/// The node's TCP connections to servers and their users.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <set>

#include "platform/someip/net/tcp_client.h"
#include "platform/someip/node/known_instances.h"
#include "platform/someip/node/node_context.h"

namespace someip {

/// Keeps a connection while a subscription or a caller uses it. Lives on the control thread.
class Client_connections {
 public:
  Client_connections(const Node_context& context,
                     const Known_instances& known,
                     Tcp_client::Events events);

  /// See Tcp_client for these four.
  [[nodiscard]] std::optional<Endpoint> local_end(const Endpoint& server) {
    return tcp_.local_end(server);
  }
  void probe(const Endpoint& server) { tcp_.probe(server); }
  void restart(const Address& server, Time before) { tcp_.restart(server, before); }
  void close() { tcp_.close(); }

  /// A subscribed event needs the connection to `server`, or no longer does. The connection stays
  /// until release_if_unused().
  void add_subscription(const Endpoint& server) { ++subscriptions_[server]; }
  void remove_subscription(const Endpoint& server);

  /// Sends for a caller, which uses the connection from now on. Drops the message when no instance
  /// is offered at `server`: a connection opened then would never be released.
  void send(const Endpoint& server,
            const Header& header,
            Bytes payload,
            const void* caller,
            Time deadline);
  /// Messages that the caller has sent still leave.
  void remove_caller(const void* caller);

  /// Closes the connection unless a subscription uses it or, while an instance is offered there, a
  /// caller does.
  void release_if_unused(const Endpoint& server);

 private:
  const Known_instances& known_;
  Tcp_client tcp_;
  std::map<Endpoint, std::size_t> subscriptions_;  ///< number of subscribed events by server
  /// The living callers that have sent to a server, while it offers an instance.
  std::map<Endpoint, std::set<const void*>> callers_;
};

}  // namespace someip
