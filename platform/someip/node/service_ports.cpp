#include "platform/someip/node/service_ports.h"

#include <stdexcept>
#include <string>
#include <utility>

#include "platform/someip/node/service_table.h"

namespace someip {

/// A port with services behind it.
class Service_ports::Udp final : public Message_receiver {
 public:
  Udp(std::unique_ptr<Udp_socket> socket, Service_ports& all)
      : port(all.context_.udp_port(std::move(socket), *this)),
        deployment_(all.context_.deployment),
        requests_(all.requests_),
        counters_(all.context_.counters),
        log_(all.context_.log) {}

  void received(Received message, const Endpoint& from, Tasks& tasks) override {
    if (!deployment_.allows_peer(from.address)) {
      counters_.dropped_foreign_peer.add();
      return;
    }
    table.dispatch(std::move(message), from, {port, nullptr, Socket_address(from)}, tasks,
                   requests_, counters_, log_);
  }

  Service_table table;
  const std::shared_ptr<Udp_port> port;

 private:
  const Deployment& deployment_;
  Request_budget& requests_;
  Counters& counters_;
  Log& log_;
};

/// The same for the connections of clients.
class Service_ports::Tcp final {
 public:
  /// Throws boost::system::system_error when the port cannot be listened on.
  Tcp(const Endpoint& local, Service_ports& all)
      : connections(std::make_shared<Tcp_server>(local,
                                                 all.context_.deployment.limits,
                                                 all.context_.workers,
                                                 all.context_.counters,
                                                 all.context_.log,
                                                 events(all))) {}

  Service_table table;
  const std::shared_ptr<Tcp_server> connections;

 private:
  [[nodiscard]] Tcp_server::Events events(Service_ports& all) {
    return {[&all](const Address& peer) { return all.obstacle(peer); },
            [&all](const Endpoint& client) { all.connection_lost_(client); },
            [this, &all](Received message, const Endpoint& client,
                         const std::shared_ptr<Stream>& connection, Tasks& tasks) {
              table.dispatch(std::move(message), client, {nullptr, connection, {}}, tasks,
                             all.requests_, all.context_.counters, all.context_.log);
            }};
  }
};

Service_ports::Service_ports(const Node_context& context,
                             Connection_lost connection_lost,
                             Closed_ports::Callback port_closed)
    : context_(context),
      connection_lost_(std::move(connection_lost)),
      requests_(context.deployment.limits),
      closed_(context.control.loop(), std::move(port_closed)) {}

Service_ports::~Service_ports() = default;

std::shared_ptr<Service_ports::Udp> Service_ports::udp(const Instance_deployment& instance) {
  if (!instance.udp_port) return nullptr;
  std::unique_lock lock(mutex_);
  const auto known = udp_.find(*instance.udp_port);
  if (known != udp_.end()) return known->second;
  auto socket = std::make_unique<Udp_socket>(context_.own);
  allow_missing_address(socket->descriptor());
  if (const auto error = socket->bind({context_.own, *instance.udp_port})) {
    throw std::runtime_error(context_.deployment.source + ": udpPort of instance \"" +
                             instance.specifier + "\": port " + std::to_string(*instance.udp_port) +
                             " of " + context_.own.to_string() +
                             " cannot be used: " + error.message());
  }
  const auto no_multicast = socket->multicast_from(context_.own);
  closed_.add(*socket);
  auto port = std::make_shared<Udp>(std::move(socket), *this);
  port->port->open();
  udp_.emplace(*instance.udp_port, port);
  lock.unlock();
  if (no_multicast) {
    context_.log.limited(
        Log_level::warning, "multicast",
        "no multicast from " + context_.own.to_string() + ": " + no_multicast.message());
  }
  return port;
}

std::shared_ptr<Service_ports::Tcp> Service_ports::tcp(const Instance_deployment& instance) {
  if (!instance.tcp_port) return nullptr;
  const std::lock_guard lock(mutex_);
  const auto known = tcp_.find(*instance.tcp_port);
  if (known != tcp_.end()) return known->second;
  std::shared_ptr<Tcp> port;
  try {
    port = std::make_shared<Tcp>(Endpoint{context_.own, *instance.tcp_port}, *this);
  } catch (const boost::system::system_error& error) {
    throw std::runtime_error(context_.deployment.source + ": tcpPort of instance \"" +
                             instance.specifier + "\": port " + std::to_string(*instance.tcp_port) +
                             " of " + context_.own.to_string() +
                             " cannot be used: " + error.code().message());
  }
  context_.control.post([port] { port->connections->start(); });
  return tcp_.emplace(*instance.tcp_port, std::move(port)).first->second;
}

std::shared_ptr<Udp_port> Service_ports::open(const Instance_deployment& instance) {
  const auto port = udp(instance);
  static_cast<void>(tcp(instance));
  return port ? port->port : nullptr;
}

void Service_ports::add(const std::shared_ptr<Provided_instance>& instance) {
  if (const auto port = udp(instance->deployment())) port->table.add(instance);
  if (const auto port = tcp(instance->deployment())) port->table.add(instance);
}

void Service_ports::remove(const Provided_instance& instance) {
  if (const auto port = udp(instance.deployment())) port->table.remove(instance);
  if (const auto port = tcp(instance.deployment())) port->table.remove(instance);
}

std::shared_ptr<Tcp_server> Service_ports::connections(const Instance_deployment& instance) {
  const auto port = tcp(instance);
  return port ? port->connections : nullptr;
}

void Service_ports::serve(const Local_frame& frame,
                          const std::shared_ptr<Local_connection>& client) {
  auto message = received_from(frame, context_.counters);
  if (!message) return;
  const auto serve_by = [&](const auto& ports) {
    std::unique_lock lock(mutex_);
    const auto found = ports.find(frame.head.port);
    if (found == ports.end()) {
      context_.counters.dropped_unknown_service.add();
      return;
    }
    const auto port = found->second;
    lock.unlock();
    Tasks tasks;
    port->table.dispatch(std::move(*message), client->peer(),
                         {nullptr, std::make_shared<Local_stream>(client, frame.head), {}}, tasks,
                         requests_, context_.counters, context_.log);
    post_all(std::move(tasks), context_.workers);
  };
  if (frame.head.kind == Local_kind::tcp) {
    serve_by(tcp_);
  } else {
    serve_by(udp_);
  }
}

std::string_view Service_ports::obstacle(const Address& peer) {
  const Deployment& deployment = context_.deployment;
  if (!deployment.allows_peer(peer)) return "it is not an allowed peer";
  const std::lock_guard lock(mutex_);
  std::size_t count = 0, of_peer = 0;
  for (const auto& [number, port] : tcp_) {
    count += port->connections->connections();
    of_peer += port->connections->connections_from(peer);
  }
  if (count >= deployment.limits.tcp_connections) return "there are too many";
  if (of_peer >= deployment.limits.tcp_connections_per_address) return "it has too many";
  return {};
}

void Service_ports::peer_restarted(const Address& peer, Time last_contact) {
  const std::lock_guard lock(mutex_);
  for (const auto& [number, port] : tcp_)
    port->connections->forget(peer, last_contact);
}

void Service_ports::link_up() {
  const std::lock_guard lock(mutex_);
  for (const auto& [number, port] : udp_)
    static_cast<void>(port->port->socket().multicast_from(context_.own));
}

void Service_ports::link_down() {
  const std::lock_guard lock(mutex_);
  for (const auto& [number, port] : tcp_)
    port->connections->drop_connections();
}

void Service_ports::close_connections() {
  const std::lock_guard lock(mutex_);
  for (const auto& [number, port] : tcp_)
    port->connections->close();
}

void Service_ports::close() {
  const std::lock_guard lock(mutex_);
  for (const auto& [number, port] : udp_)
    port->port->close();
}

}  // namespace someip
