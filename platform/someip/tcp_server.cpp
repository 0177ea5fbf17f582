#include "platform/someip/tcp_server.h"

#include <netinet/in.h>

#include <algorithm>
#include <utility>

namespace someip {

using boost::asio::ip::tcp;
using boost::system::error_code;

Tcp_service_port::Tcp_service_port(const Endpoint& local,
                                   const Limits& limits,
                                   Request_budget& budget,
                                   Workers& workers,
                                   Counters& counters,
                                   Log& log)
    : limits_(limits),
      budget_(budget),
      workers_(workers),
      counters_(counters),
      log_(log),
      acceptor_(workers.control()),
      retry_(workers.control()) {
  const tcp::endpoint endpoint = tcp_endpoint_of(local);
  acceptor_.open(endpoint.protocol());
  close_in_children(acceptor_.native_handle());
  // Connections of an earlier life may still linger on the port; two listeners are refused all the
  // same.
  acceptor_.set_option(tcp::acceptor::reuse_address(true));
  const int on = 1;
  static_cast<void>(::setsockopt(acceptor_.native_handle(), SOL_IP, IP_FREEBIND, &on, sizeof on));
  acceptor_.bind(endpoint);
  acceptor_.listen();
}

void Tcp_service_port::start(std::function<bool()> admit,
                             std::function<void(const Endpoint&)> lost) {
  admit_ = std::move(admit);
  lost_ = std::move(lost);
  accept();
}

void Tcp_service_port::close() {
  error_code ignored;
  acceptor_.close(ignored);
  retry_.cancel();
  drop_connections();
}

void Tcp_service_port::drop_connections() {
  for (const auto& connection : std::exchange(connections_, {}))
    connection->close();
}

void Tcp_service_port::accept() {
  acceptor_.async_accept(accepted_, [this, self = shared_from_this()](const error_code& error,
                                                                      tcp::socket socket) {
    if (!acceptor_.is_open()) return;
    if (error) {
      // Out of descriptors, most likely: the next one may fare better.
      retry_.expires_after(std::chrono::milliseconds(100));
      retry_.async_wait([this, self](const error_code& cancelled) {
        if (!cancelled && acceptor_.is_open()) accept();
      });
      return;
    }
    if (admit_()) {
      counters_.tcp_accepted.add();
      connections_.push_back(std::make_shared<Tcp_connection>(
          std::move(socket), endpoint_of(accepted_), false, limits_,
          static_cast<Tcp_connection::Handler&>(*this), workers_, counters_, log_));
      connections_.back()->start();
    } else {
      counters_.refused_connections.add();
      log_.limited(Log_level::warning, "connections", "too many TCP connections: one more refused");
    }
    accept();
  });
}

void Tcp_service_port::received(Received message,
                                const std::shared_ptr<Tcp_connection>& connection,
                                Tasks& tasks) {
  table.dispatch(std::move(message), connection->peer(), {nullptr, connection, {}}, tasks, budget_,
                 counters_);
}

void Tcp_service_port::lost(const std::shared_ptr<Tcp_connection>& connection) {
  std::erase(connections_, connection);
  lost_(connection->peer());
}

std::shared_ptr<Stream> Tcp_service_port::connection_of(const Endpoint& client) const {
  const auto found = std::ranges::find_if(
      connections_, [&](const auto& connection) { return connection->peer() == client; });
  return found == connections_.end() ? nullptr : *found;
}

void Tcp_service_port::forget(const Address& peer, Time before) {
  const auto old = [&](const auto& connection) {
    return connection->peer().address == peer && connection->established() < before;
  };
  for (const auto& connection : connections_) {
    if (old(connection)) connection->close();
  }
  std::erase_if(connections_, old);
}

}  // namespace someip
