#include "platform/someip/net/tcp_server.h"

#include <algorithm>
#include <utility>

#include "platform/someip/net/udp_socket.h"

namespace someip {

using boost::asio::ip::tcp;
using boost::system::error_code;

Tcp_server::Tcp_server(const Endpoint& local,
                       const Limits& limits,
                       Workers& workers,
                       Counters& counters,
                       Log& log,
                       Events events)
    : limits_(limits),
      workers_(workers),
      counters_(counters),
      log_(log),
      events_(std::move(events)),
      acceptor_(workers.control()),
      retry_(workers.control()) {
  const tcp::endpoint endpoint = tcp_endpoint_of(local);
  acceptor_.open(endpoint.protocol());
  close_in_children(acceptor_.native_handle());
  // Connections of an earlier process may still linger on the port. The kernel refuses two
  // listeners all the same.
  acceptor_.set_option(tcp::acceptor::reuse_address(true));
  allow_missing_address(acceptor_.native_handle());
  acceptor_.bind(endpoint);
  acceptor_.listen();
}

void Tcp_server::close() {
  error_code ignored;
  acceptor_.close(ignored);
  retry_.cancel();
  drop_connections();
}

void Tcp_server::drop_connections() {
  for (const auto& connection : std::exchange(connections_, {}))
    connection->close();
}

void Tcp_server::accept() {
  acceptor_.async_accept(
      accepted_, [this, self = shared_from_this()](const error_code& error, tcp::socket socket) {
        if (!acceptor_.is_open()) return;
        if (error) {
          // Most likely there is no free descriptor: the next connection may succeed.
          retry_.expires_after(std::chrono::milliseconds(100));
          retry_.async_wait([this, self](const error_code& cancelled) {
            if (!cancelled && acceptor_.is_open()) accept();
          });
          return;
        }
        const Address peer = accepted_.address();
        if (const auto obstacle = events_.obstacle(peer); obstacle.empty()) {
          counters_.tcp_accepted.add();
          connections_.push_back(std::make_shared<Tcp_connection>(
              std::move(socket), endpoint_of(accepted_), false, limits_,
              static_cast<Tcp_connection::Handler&>(*this), workers_, counters_, log_));
          connections_.back()->start();
        } else {
          counters_.refused_connections.add();
          log_.limited(
              Log_level::warning, "connections",
              "TCP connection from " + peer.to_string() + " refused: " + std::string(obstacle));
        }
        accept();
      });
}

void Tcp_server::received(Received message,
                          const std::shared_ptr<Tcp_connection>& connection,
                          Tasks& tasks) {
  events_.received(std::move(message), connection->peer(), connection, tasks);
}

void Tcp_server::lost(const std::shared_ptr<Tcp_connection>& connection) {
  std::erase(connections_, connection);
  events_.lost(connection->peer());
}

std::size_t Tcp_server::connections_from(const Address& peer) const {
  return static_cast<std::size_t>(std::ranges::count_if(
      connections_, [&](const auto& connection) { return connection->peer().address == peer; }));
}

std::shared_ptr<Stream> Tcp_server::connection_of(const Endpoint& client) const {
  const auto found = std::ranges::find_if(
      connections_, [&](const auto& connection) { return connection->peer() == client; });
  return found == connections_.end() ? nullptr : *found;
}

void Tcp_server::forget(const Address& peer, Time before) {
  const auto old = [&](const auto& connection) {
    return connection->peer().address == peer && connection->established() < before;
  };
  for (const auto& connection : connections_) {
    if (old(connection)) connection->close();
  }
  std::erase_if(connections_, old);
}

}  // namespace someip
