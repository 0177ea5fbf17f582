#include "platform/someip/net/local_server.h"

#include <algorithm>
#include <string>
#include <utility>

namespace someip {

using boost::asio::local::stream_protocol;
using boost::system::error_code;

Local_server::Local_server(const std::string& path,
                           bool v4,
                           const Limits& limits,
                           Workers& workers,
                           Counters& counters,
                           Log& log,
                           Events events)
    : path_(path),
      v4_(v4),
      limits_(limits),
      workers_(workers),
      counters_(counters),
      log_(log),
      events_(std::move(events)),
      acceptor_(workers.control(), stream_protocol(), path_.listen()),
      retry_(workers.control()) {}

void Local_server::close() {
  error_code ignored;
  acceptor_.close(ignored);
  retry_.cancel();
  for (const auto& connection : std::exchange(connections_, {}))
    connection->close();
}

void Local_server::accept() {
  acceptor_.async_accept(
      [this, self = shared_from_this()](const error_code& error, stream_protocol::socket socket) {
        if (!acceptor_.is_open()) return;
        if (error) {
          // Most likely there is no free descriptor: the next connection may succeed.
          retry_.expires_after(std::chrono::milliseconds(100));
          retry_.async_wait([this, self](const error_code& cancelled) {
            if (!cancelled && acceptor_.is_open()) accept();
          });
          return;
        }
        add(std::move(socket));
        accept();
      });
}

void Local_server::add(stream_protocol::socket socket) {
  if (connections_.size() >= limits_.local_connections) {
    counters_.refused_connections.add();
    log_.limited(Log_level::warning, "local connections",
                 "too many connections of the Unix socket: one more refused");
    return;
  }
  counters_.local_accepted.add();
  connections_.push_back(std::make_shared<Local_connection>(
      std::move(socket), next_client(), limits_, static_cast<Local_connection::Handler&>(*this),
      workers_, counters_));
  connections_.back()->start();
}

Endpoint Local_server::next_client() {
  constexpr std::uint32_t numbers = 0xFFFFFF;
  Endpoint client{{}, 1};
  do {
    last_client_ = last_client_ % numbers + 1;
    client.address = local_address(last_client_, v4_);
  } while (connection_of(client.address) != nullptr);
  return client;
}

void Local_server::received(const Local_frame& frame,
                            const std::shared_ptr<Local_connection>& connection) {
  events_.received(frame, connection);
}

void Local_server::lost(const std::shared_ptr<Local_connection>& connection, const char* refused) {
  std::erase(connections_, connection);
  if (refused != nullptr) {
    log_.limited(Log_level::warning, "local client",
                 std::string("a client of the Unix socket has been disconnected: ") + refused);
  }
  events_.lost(connection->peer());
}

std::shared_ptr<Local_connection> Local_server::connection_of(const Address& client) const {
  const auto found = std::ranges::find_if(
      connections_, [&](const auto& connection) { return connection->peer().address == client; });
  return found == connections_.end() ? nullptr : *found;
}

void Local_server::send_discovery_to_all(Bytes message) const {
  for (const auto& connection : connections_)
    connection->send_discovery(message, true);
}

}  // namespace someip
