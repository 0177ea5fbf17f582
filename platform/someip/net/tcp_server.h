/// A listening port and the connections that clients have opened to it.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include "platform/someip/net/tcp_connection.h"

namespace someip {

/// Lives on the control thread, except its constructor.
class Tcp_server final : public std::enable_shared_from_this<Tcp_server>,
                         private Tcp_connection::Handler {
 public:
  /// Called on the control thread, from start() to close().
  struct Events {
    /// The reason for refusing one more connection of `peer` (a literal); empty: it is accepted.
    std::function<std::string_view(const Address& peer)> obstacle;
    std::function<void(const Endpoint& client)> lost;
    /// `connection` leads back to `client`.
    std::function<void(Received message,
                       const Endpoint& client,
                       const std::shared_ptr<Stream>& connection,
                       Tasks& tasks)>
        received;
  };

  /// Binds and listens. Throws boost::system::system_error.
  Tcp_server(const Endpoint& local,
             const Limits& limits,
             Workers& workers,
             Counters& counters,
             Log& log,
             Events events);

  void start() { accept(); }
  void close();

  /// Returns null if `client` has no open connection to this port.
  [[nodiscard]] std::shared_ptr<Stream> connection_of(const Endpoint& client) const;
  [[nodiscard]] std::size_t connections() const { return connections_.size(); }
  [[nodiscard]] std::size_t connections_from(const Address& peer) const;
  /// Closes every connection and keeps listening.
  void drop_connections();
  /// Closes the connections that `peer` opened before `before`.
  void forget(const Address& peer, Time before);

 private:
  void accept();
  void received(Received message,
                const std::shared_ptr<Tcp_connection>& connection,
                Tasks& tasks) override;
  void lost(const std::shared_ptr<Tcp_connection>& connection) override;

  const Limits& limits_;
  Workers& workers_;
  Counters& counters_;
  Log& log_;
  const Events events_;
  boost::asio::ip::tcp::acceptor acceptor_;
  boost::asio::ip::tcp::endpoint accepted_;  ///< the peer of the connection being accepted
  boost::asio::steady_timer retry_;
  std::vector<std::shared_ptr<Tcp_connection>> connections_;
};

}  // namespace someip
