/// The connections that the node has opened to services of other nodes: one for each endpoint.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "platform/someip/net/tcp_connection.h"

namespace someip {

/// Lives on the control thread.
class Tcp_client final : private Tcp_connection::Handler {
 public:
  struct Events {
    std::function<void(const Endpoint& server)> connected;
    std::function<void(const Endpoint& server)> lost;
    std::function<void(Received message, const Endpoint& server, Tasks& tasks)> received;
  };
  Tcp_client(const Address& own,
             const Limits& limits,
             Workers& workers,
             Counters& counters,
             Log& log,
             Events events);
  ~Tcp_client() override;
  Tcp_client(const Tcp_client&) = delete;
  Tcp_client& operator=(const Tcp_client&) = delete;

  /// This node's end of the connection to `server`. Without a connection, begins to connect, and
  /// keeps trying until release().
  [[nodiscard]] std::optional<Endpoint> local_end(const Endpoint& server);
  /// Sends now or, within the bound of the send queue and until `deadline`, once connected.
  void send(const Endpoint& server, const Header& header, Bytes payload, Time deadline);
  void probe(const Endpoint& server);
  /// Closes the connection to `server`, which is no longer needed, after the queued messages are
  /// sent.
  void finish(const Endpoint& server);
  /// Drops the connection and its queue: the server is gone.
  void release(const Endpoint& server);
  /// Reconnects the connections that were opened before `before`.
  void restart(const Address& server, Time before);
  void close();

 private:
  struct Link;
  Link* link_to(const Endpoint& server);
  void connect(const std::shared_ptr<Link>& link);
  void retry(const std::shared_ptr<Link>& link);
  void end(const std::shared_ptr<Link>& link);
  void established(const std::shared_ptr<Link>& link);
  void received(Received message,
                const std::shared_ptr<Tcp_connection>& connection,
                Tasks& tasks) override;
  void lost(const std::shared_ptr<Tcp_connection>& connection) override;

  const Address own_;
  const Limits& limits_;
  Workers& workers_;
  Counters& counters_;
  Log& log_;
  const Events events_;
  std::map<Endpoint, std::shared_ptr<Link>> links_;
  std::vector<std::shared_ptr<Link>>
      finishing_;  ///< connected, out of links_, until the peer closes
};

}  // namespace someip
