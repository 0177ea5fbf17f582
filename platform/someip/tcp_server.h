/// The connections that clients have opened to the node's services.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <vector>

#include "platform/someip/provided_instance.h"
#include "platform/someip/tcp_connection.h"

namespace someip {

/// One listening port and the services behind it. Lives on the control thread, except the
/// constructor and `table`.
class Tcp_service_port final : public std::enable_shared_from_this<Tcp_service_port>,
                               private Tcp_connection::Handler {
 public:
  /// Binds and listens. Throws boost::system::system_error.
  Tcp_service_port(const Endpoint& local,
                   const Limits& limits,
                   Request_budget& budget,
                   Workers& workers,
                   Counters& counters,
                   Log& log);

  /// `admit` decides whether a connection from `peer` is accepted; `lost` receives each client
  /// whose connection has ended.
  void start(std::function<bool(const Address& peer)> admit,
             std::function<void(const Endpoint& client)> lost);
  void close();

  [[nodiscard]] std::shared_ptr<Stream> connection_of(const Endpoint& client) const;
  [[nodiscard]] std::size_t connections() const { return connections_.size(); }
  [[nodiscard]] std::size_t connections_from(const Address& peer) const;
  /// Closes every connection; listens on.
  void drop_connections();
  /// Closes what `peer` opened before `before`.
  void forget(const Address& peer, Time before);

  Service_table table;

 private:
  void accept();
  void received(Received message,
                const std::shared_ptr<Tcp_connection>& connection,
                Tasks& tasks) override;
  void lost(const std::shared_ptr<Tcp_connection>& connection) override;

  const Limits& limits_;
  Request_budget& budget_;
  Workers& workers_;
  Counters& counters_;
  Log& log_;
  boost::asio::ip::tcp::acceptor acceptor_;
  boost::asio::ip::tcp::endpoint accepted_;  ///< where the connection comes from
  boost::asio::steady_timer retry_;
  std::function<bool(const Address&)> admit_;
  std::function<void(const Endpoint&)> lost_;
  std::vector<std::shared_ptr<Tcp_connection>> connections_;
};

}  // namespace someip
