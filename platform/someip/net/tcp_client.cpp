#include "platform/someip/net/tcp_client.h"

#include <algorithm>
#include <string>

#include "platform/someip/net/udp_socket.h"

namespace someip {

using boost::asio::ip::tcp;
using boost::system::error_code;

namespace {
constexpr Milliseconds first_retry{50};
constexpr Milliseconds longest_retry{1000};
constexpr Milliseconds connect_limit{2000};
/// Time for a peer to take the queued messages and to close its end.
constexpr Milliseconds finish_limit{10000};
}  // namespace

/// Shared with the handlers that wait for its socket and timer; `released` makes them ignore the
/// link.
struct Tcp_client::Link {
  Link(Workers& workers, const Endpoint& to)
      : server(to), socket(workers.control()), timer(workers.control()) {}

  const Endpoint server;
  tcp::socket socket;  ///< while connecting
  boost::asio::steady_timer timer;
  std::shared_ptr<Tcp_connection> connection;
  Milliseconds next_retry = first_retry;
  bool released = false;
  bool unused = false;  ///< while connecting: needed only for the waiting messages
  struct Waiting {
    Header header;
    std::vector<std::byte> payload;
    Time deadline;
    [[nodiscard]] std::size_t size() const { return header_size + payload.size(); }
  };
  std::vector<Waiting> waiting;
  std::size_t waiting_bytes = 0;

  /// Their senders have already been notified of the failure.
  void drop_expired() {
    const Time now = std::chrono::steady_clock::now();
    std::erase_if(waiting, [&](const Waiting& message) {
      if (message.deadline > now) return false;
      waiting_bytes -= message.size();
      return true;
    });
  }
};

Tcp_client::Tcp_client(const Address& own,
                       const Limits& limits,
                       Workers& workers,
                       Counters& counters,
                       Log& log,
                       Events events)
    : own_(own),
      limits_(limits),
      workers_(workers),
      counters_(counters),
      log_(log),
      events_(std::move(events)) {}

Tcp_client::~Tcp_client() = default;

Tcp_client::Link* Tcp_client::link_to(const Endpoint& server) {
  const auto found = links_.find(server);
  if (found != links_.end()) {
    found->second->unused = false;
    return found->second.get();
  }
  if (links_.size() >= limits_.tcp_connections) {
    counters_.refused_connections.add();
    return nullptr;
  }
  const auto link = std::make_shared<Link>(workers_, server);
  links_.emplace(server, link);
  connect(link);
  return link.get();
}

std::optional<Endpoint> Tcp_client::local_end(const Endpoint& server) {
  const Link* const link = link_to(server);
  if (link == nullptr || !link->connection) return std::nullopt;
  return link->connection->local();
}

void Tcp_client::send(const Endpoint& server, const Header& header, Bytes payload, Time deadline) {
  Link* const link = link_to(server);
  if (link == nullptr) return;
  if (link->connection) {
    link->connection->send(header, payload);
    return;
  }
  const std::size_t size = header_size + payload.size();
  link->drop_expired();
  if (link->waiting_bytes + size > limits_.tcp_send_queue_bytes) {
    counters_.send_would_block.add();
    return;
  }
  link->waiting_bytes += size;
  link->waiting.push_back({header, {payload.begin(), payload.end()}, deadline});
}

void Tcp_client::probe(const Endpoint& server) {
  const auto found = links_.find(server);
  if (found != links_.end() && found->second->connection) found->second->connection->probe();
}

void Tcp_client::finish(const Endpoint& server) {
  const auto found = links_.find(server);
  if (found == links_.end()) return;
  const auto link = found->second;
  if (!link->connection) {
    link->drop_expired();
    link->unused = !link->waiting.empty();
    if (!link->unused) release(server);
    return;
  }
  links_.erase(found);
  link->released = true;
  finishing_.push_back(link);
  link->timer.expires_after(finish_limit);
  link->timer.async_wait([this, link](const error_code& cancelled) {
    if (!cancelled) end(link);
  });
  link->connection->finish();
}

void Tcp_client::end(const std::shared_ptr<Link>& link) {
  link->timer.cancel();
  link->connection->close();
  std::erase(finishing_, link);
}

void Tcp_client::release(const Endpoint& server) {
  const auto found = links_.find(server);
  if (found == links_.end()) return;
  const auto link = std::move(found->second);
  links_.erase(found);
  link->released = true;
  link->timer.cancel();
  error_code ignored;
  link->socket.close(ignored);
  if (link->connection) link->connection->close();
}

void Tcp_client::restart(const Address& server, Time before) {
  std::vector<std::shared_ptr<Link>> old;
  for (const auto& [endpoint, link] : links_) {
    if (endpoint.address == server && link->connection &&
        link->connection->established() < before) {
      old.push_back(link);
    }
  }
  for (const auto& link : old) {
    link->connection->close();
    link->connection.reset();
    events_.lost(link->server);
    if (!link->released) connect(link);
  }
}

void Tcp_client::close() {
  while (!links_.empty())
    release(Endpoint(links_.begin()->first));
  while (!finishing_.empty())
    end(std::shared_ptr(finishing_.back()));
}

void Tcp_client::connect(const std::shared_ptr<Link>& link) {
  error_code error;
  const tcp::endpoint server = tcp_endpoint_of(link->server);
  link->socket.open(server.protocol(), error);
  if (!error) {
    close_in_children(link->socket.native_handle());
    allow_missing_address(link->socket.native_handle());
    link->socket.bind(tcp::endpoint(own_, 0), error);
  }
  if (error) {
    retry(link);
    return;
  }
  link->socket.async_connect(server, [this, link](const error_code& failed) {
    if (link->released) return;
    link->timer.cancel();
    if (failed) {
      retry(link);
    } else {
      established(link);
    }
  });
  link->timer.expires_after(connect_limit);
  link->timer.async_wait([link](const error_code& cancelled) {
    if (cancelled || link->released || link->connection) return;
    error_code ignored;
    link->socket.close(ignored);  // async_connect ends with an error
  });
}

void Tcp_client::retry(const std::shared_ptr<Link>& link) {
  error_code ignored;
  link->socket.close(ignored);
  if (link->unused) finish(link->server);  // gives up when all waiting messages have expired
  if (link->released) return;
  link->timer.expires_after(link->next_retry);
  link->next_retry = std::min(link->next_retry * 2, longest_retry);
  link->timer.async_wait([this, link](const error_code& cancelled) {
    if (!cancelled && !link->released) connect(link);
  });
}

void Tcp_client::established(const std::shared_ptr<Link>& link) {
  counters_.tcp_connected.add();
  link->next_retry = first_retry;
  link->connection = std::make_shared<Tcp_connection>(
      std::move(link->socket), link->server, true, limits_,
      static_cast<Tcp_connection::Handler&>(*this), workers_, counters_, log_);
  link->socket = tcp::socket(workers_.control());
  link->connection->start();
  link->drop_expired();
  for (const auto& message : std::exchange(link->waiting, {})) {
    link->connection->send(message.header, message.payload);
  }
  link->waiting_bytes = 0;
  if (link->unused) {
    finish(link->server);
  } else {
    events_.connected(link->server);
  }
}

void Tcp_client::received(Received message,
                          const std::shared_ptr<Tcp_connection>& connection,
                          Tasks& tasks) {
  events_.received(std::move(message), connection->peer(), tasks);
}

void Tcp_client::lost(const std::shared_ptr<Tcp_connection>& connection) {
  const auto finished = std::ranges::find(finishing_, connection, &Link::connection);
  if (finished != finishing_.end()) {
    end(std::shared_ptr(*finished));
    return;
  }
  const auto found = links_.find(connection->peer());
  if (found == links_.end() || found->second->connection != connection) return;
  const auto link = found->second;
  link->connection.reset();
  events_.lost(link->server);
  if (!link->released) retry(link);
}

}  // namespace someip
