#include "platform/someip/node/node_server.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <utility>

#include "platform/someip/base/hexadecimal.h"
#include "platform/someip/node/causes.h"

namespace someip {

/// A port with services behind it.
class Node_server::Service_port final : public Message_receiver {
 public:
  Service_port(std::unique_ptr<Udp_socket> socket, Node_server& server)
      : port(server.context_.udp_port(std::move(socket), *this)),
        deployment_(server.context_.deployment),
        requests_(server.requests_),
        counters_(server.context_.counters),
        log_(server.context_.log) {}

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
class Node_server::Tcp_service_port final {
 public:
  /// Throws boost::system::system_error when the port cannot be listened on.
  Tcp_service_port(const Endpoint& local, Node_server& server)
      : connections(std::make_shared<Tcp_server>(local,
                                                 server.context_.deployment.limits,
                                                 server.context_.workers,
                                                 server.context_.counters,
                                                 server.context_.log,
                                                 events(server))) {}

  Service_table table;
  const std::shared_ptr<Tcp_server> connections;

 private:
  [[nodiscard]] Tcp_server::Events events(Node_server& server) {
    return {[&server](const Address& peer) { return server.admit_connection(peer); },
            [&server](const Endpoint& client) { server.connection_lost(client); },
            [this, &server](Received message, const Endpoint& client,
                            const std::shared_ptr<Stream>& connection, Tasks& tasks) {
              table.dispatch(std::move(message), client, {nullptr, connection, {}}, tasks,
                             server.requests_, server.context_.counters, server.context_.log);
            }};
  }
};

std::map<std::uint16_t, Group_transport> event_groups(const Service_deployment& service,
                                                      const Instance_deployment* instance) {
  std::map<std::uint16_t, Group_transport> groups;
  const auto add = [&](std::uint16_t group, Transport transport) {
    (transport == Transport::udp ? groups[group].udp : groups[group].tcp) = true;
  };
  for (const auto& event : service.events)
    add(event.event_group, event.transport);
  for (const auto& field : service.fields) {
    if (field.notifier) add(field.event_group, field.transport);
  }
  if (instance == nullptr) return groups;
  for (const Multicast_deployment& multicast : instance->multicast) {
    const auto group = groups.find(multicast.event_group);
    if (group == groups.end()) continue;
    group->second.multicast = Endpoint{multicast.address, multicast.port};
    group->second.multicast_threshold = multicast.threshold;
  }
  return groups;
}

Node_server::Node_server(const Node_context& context, Discovery& discovery)
    : context_(context),
      discovery_(discovery),
      requests_(context.deployment.limits),
      local_(listen_locally()),
      closed_ports_(context.control.loop()) {}

std::shared_ptr<Local_server> Node_server::listen_locally() {
  const std::string& path = context_.node.socket_path;
  if (path.empty()) return nullptr;
  try {
    return std::make_shared<Local_server>(
        path, context_.own.is_v4(), context_.deployment.limits, context_.workers, context_.counters,
        context_.log,
        Local_server::Events{
            [this](const Local_frame& frame, const std::shared_ptr<Local_connection>& client) {
              received(frame, client);
            },
            [this](const Endpoint& client) {
              discovery_.local_client_lost(client, Time::clock::now());
            }});
  } catch (const std::exception& error) {
    context_.log.write(Log_level::warning,
                       std::string("no Unix socket for clients of this machine: ") + error.what());
    return nullptr;
  }
}

void Node_server::received(const Local_frame& frame,
                           const std::shared_ptr<Local_connection>& client) {
  const auto kind = frame.head.kind;
  if (kind == Local_kind::discovery || kind == Local_kind::discovery_to_all) {
    discovery_.received(frame.message, client->peer(), kind == Local_kind::discovery_to_all,
                        Time::clock::now());
    return;
  }
  auto message = received_from(frame, context_.counters);
  if (!message) return;
  const auto serve = [&](const auto& ports) {
    std::unique_lock lock(ports_mutex_);
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
  if (kind == Local_kind::tcp) {
    serve(tcp_ports_);
  } else {
    serve(udp_ports_);
  }
}

void Node_server::send_local_discovery(Bytes message, const std::optional<Address>& to) {
  if (!local_) return;
  if (!to) {
    local_->send_discovery_to_all(message);
  } else if (const auto client = local_->connection_of(*to)) {
    client->send_discovery(message, false);
  }
}

void Node_server::start() {
  if (local_) local_->start();
  closed_ports_.start([this](const Returned_datagram& returned) { port_closed(returned); });
}

void Node_server::peer_restarted(const Address& peer, Time last_contact) {
  const std::lock_guard lock(ports_mutex_);
  for (const auto& [number, port] : tcp_ports_)
    port->connections->forget(peer, last_contact);
}

void Node_server::link_up() {
  const std::lock_guard lock(ports_mutex_);
  for (const auto& [number, port] : udp_ports_)
    static_cast<void>(port->port->socket().multicast_from(context_.own));
}

void Node_server::link_down() {
  const std::lock_guard lock(ports_mutex_);
  for (const auto& [number, port] : tcp_ports_)
    port->connections->drop_connections();
}

void Node_server::close_connections() {
  if (local_) local_->close();
  const std::lock_guard lock(ports_mutex_);
  for (const auto& [number, port] : tcp_ports_)
    port->connections->close();
}

void Node_server::close_ports() {
  const std::lock_guard lock(ports_mutex_);
  for (const auto& [number, port] : udp_ports_)
    port->port->close();
}

void Node_server::port_closed(const Returned_datagram& returned) {
  // Only what we could have sent: an event of ours.
  const Header& header = returned.header;
  const bool ours = std::ranges::any_of(offered_, [&](const auto& offered) {
    const auto& [key, instance] = offered;
    return key.service == header.service && key.major_version == header.interface_version &&
           instance->has_event(header.method);
  });
  const auto type = static_cast<std::uint8_t>(header.type & ~segment_flag);
  if (!ours || type != static_cast<std::uint8_t>(Message_type::notification)) return;
  const std::size_t ended = discovery_.port_closed(returned.destination, Time::clock::now());
  if (ended == 0) return;
  context_.log.limited(Log_level::warning, "closed",
                       to_string(returned.destination) + " is closed: its subscriptions (" +
                           std::to_string(ended) + ") have ended");
}

std::shared_ptr<Node_server::Service_port> Node_server::udp_port(
    const Instance_deployment& instance) {
  if (!instance.udp_port) return nullptr;
  std::unique_lock lock(ports_mutex_);
  const auto known = udp_ports_.find(*instance.udp_port);
  if (known != udp_ports_.end()) return known->second;
  auto socket = std::make_unique<Udp_socket>(context_.own);
  socket->allow_missing_address();
  if (const auto error = socket->bind({context_.own, *instance.udp_port})) {
    throw std::runtime_error(context_.deployment.source + ": udpPort of instance \"" +
                             instance.specifier + "\": port " + std::to_string(*instance.udp_port) +
                             " of " + context_.own.to_string() +
                             " cannot be used: " + error.message());
  }
  const auto no_multicast = socket->multicast_from(context_.own);
  closed_ports_.add(*socket);
  auto port = std::make_shared<Service_port>(std::move(socket), *this);
  port->port->open();
  udp_ports_.emplace(*instance.udp_port, port);
  lock.unlock();
  if (no_multicast) {
    context_.log.limited(
        Log_level::warning, "multicast",
        "no multicast from " + context_.own.to_string() + ": " + no_multicast.message());
  }
  return port;
}

std::shared_ptr<Node_server::Tcp_service_port> Node_server::tcp_port(
    const Instance_deployment& instance) {
  if (!instance.tcp_port) return nullptr;
  const std::lock_guard lock(ports_mutex_);
  const auto known = tcp_ports_.find(*instance.tcp_port);
  if (known != tcp_ports_.end()) return known->second;
  std::shared_ptr<Tcp_service_port> port;
  try {
    port = std::make_shared<Tcp_service_port>(Endpoint{context_.own, *instance.tcp_port}, *this);
  } catch (const boost::system::system_error& error) {
    throw std::runtime_error(context_.deployment.source + ": tcpPort of instance \"" +
                             instance.specifier + "\": port " + std::to_string(*instance.tcp_port) +
                             " of " + context_.own.to_string() +
                             " cannot be used: " + error.code().message());
  }
  context_.control.post([port] { port->connections->start(); });
  return tcp_ports_.emplace(*instance.tcp_port, std::move(port)).first->second;
}

bool Node_server::admit_connection(const Address& peer) {
  const Deployment& deployment = context_.deployment;
  if (!deployment.allows_peer(peer)) return false;
  const std::lock_guard lock(ports_mutex_);
  std::size_t count = 0, of_peer = 0;
  for (const auto& [number, port] : tcp_ports_) {
    count += port->connections->connections();
    of_peer += port->connections->connections_from(peer);
  }
  return count < deployment.limits.tcp_connections &&
         of_peer < deployment.limits.tcp_connections_per_address;
}

void Node_server::connection_lost(const Endpoint& client) {
  discovery_.client_lost(client, Time::clock::now());
}

bool Node_server::has_connection(const Offer& offer, const Endpoint& client) {
  if (is_local_address(client.address)) return true;
  const auto instance = offered_.find(offer.key);
  if (instance == offered_.end()) return false;
  const auto port = tcp_port(instance->second->deployment());
  return port && port->connections->connection_of(client) != nullptr;
}

std::shared_ptr<Provided_instance> Node_server::provide(
    const Service_deployment& service,
    const Instance_deployment& instance,
    const Value_missing_handler& value_missing) {
  const auto udp = udp_port(instance);
  static_cast<void>(tcp_port(instance));
  return std::make_shared<Provided_instance>(service, instance, udp ? udp->port : nullptr,
                                             context_.deployment.limits, context_.counters,
                                             value_missing);
}

void Node_server::offer(std::shared_ptr<Provided_instance> instance) {
  if (const auto port = udp_port(instance->deployment())) port->table.add(instance);
  if (const auto port = tcp_port(instance->deployment())) port->table.add(instance);
  context_.control.post([this, instance = std::move(instance)] {
    const Service_deployment& service = instance->service();
    const Instance_deployment& deployment = instance->deployment();
    Offer offer;
    offer.key = instance->key();
    offer.minor_version = service.minor_version;
    if (deployment.udp_port) offer.endpoints.udp = Endpoint{context_.own, *deployment.udp_port};
    if (deployment.tcp_port) offer.endpoints.tcp = Endpoint{context_.own, *deployment.tcp_port};
    offer.groups = event_groups(service, &deployment);
    offer.allowed_peers = service.allowed_peers;
    offered_[offer.key] = instance;
    discovery_.offer(std::move(offer), Time::clock::now());
  });
}

void Node_server::stop_offer(std::shared_ptr<Provided_instance> instance) {
  if (const auto port = udp_port(instance->deployment())) port->table.remove(*instance);
  if (const auto port = tcp_port(instance->deployment())) port->table.remove(*instance);
  context_.control.post([this, instance = std::move(instance)] {
    const auto found = offered_.find(instance->key());
    if (found == offered_.end() || found->second != instance) return;
    discovery_.stop_offer(instance->key(), Time::clock::now());
    offered_.erase(instance->key());
  });
}

std::shared_ptr<Event_targets> Node_server::targets_of(const Provided_instance& instance,
                                                       const std::vector<Subscriber>& subscribers) {
  const auto tcp = tcp_port(instance.deployment());
  auto targets = std::make_shared<Event_targets>();
  targets->udp.reserve(subscribers.size());
  // A client in two subscriptions gets each event once.
  std::unordered_set<Endpoint, Endpoint_hash> udp_known(subscribers.size());
  std::unordered_set<Endpoint, Endpoint_hash> tcp_known;
  const Instance_deployment& deployment = instance.deployment();
  const auto add_local = [&](const Endpoint& client) {
    const auto connection = local_ ? local_->connection_of(client.address) : nullptr;
    if (!connection || !udp_known.insert(client).second) return;
    const auto add = [&](auto& streams, Transport transport, const auto& port) {
      if (!port) return;
      streams.push_back(std::make_shared<Local_stream>(connection, local_head(transport, *port)));
    };
    add(targets->udp_streams, Transport::udp, deployment.udp_port);
    add(targets->streams, Transport::tcp, deployment.tcp_port);
  };
  for (const Subscriber& subscriber : subscribers) {
    if (subscriber.origin.local()) {
      add_local(subscriber.origin.peer);
      continue;
    }
    const Instance_endpoints& endpoints = subscriber.endpoints;
    if (endpoints.udp && udp_known.insert(*endpoints.udp).second) {
      targets->udp.emplace_back(*endpoints.udp);
    }
    if (!tcp || !endpoints.tcp || !tcp_known.insert(*endpoints.tcp).second) continue;
    if (auto stream = tcp->connections->connection_of(*endpoints.tcp)) {
      targets->streams.push_back(std::move(stream));
    }
  }
  return targets;
}

void Node_server::subscribers_changed(const Instance_key& key,
                                      std::uint16_t event_group,
                                      const std::vector<Subscriber>& all) {
  const auto instance = offered_.find(key);
  if (instance == offered_.end()) return;
  const auto targets = targets_of(*instance->second, all);
  for (const Multicast_deployment& multicast : instance->second->deployment().multicast) {
    if (multicast.event_group != event_group || multicast.threshold == 0) continue;
    // Where all is multicast, a subscriber need not say where it listens.
    const auto receivers =
        multicast.threshold == 1 ? all.size() - targets->udp_streams.size() : targets->udp.size();
    if (receivers < multicast.threshold) continue;
    targets->udp = {Socket_address(Endpoint{multicast.address, multicast.port})};
  }
  for (Event_channel* channel : instance->second->group(event_group))
    channel->hold(targets);
}

std::size_t Node_server::values_wanted(const Instance_key& key,
                                       std::uint16_t event_group,
                                       const std::vector<Subscriber>& fresh) {
  const auto instance = offered_.find(key);
  if (instance == offered_.end()) return 0;
  const auto targets = targets_of(*instance->second, fresh);
  std::size_t values = 0;
  for (Event_channel* channel : instance->second->group(event_group)) {
    if (channel->send_initial(targets)) ++values;
  }
  return values;
}

std::uint64_t Node_server::sent_to_all(const Instance_key& key, std::uint16_t event_group) const {
  const auto instance = offered_.find(key);
  if (instance == offered_.end()) return 0;
  std::uint64_t sent = 0;
  for (const Event_channel* channel : instance->second->group(event_group))
    sent += channel->sent_to_all();
  return sent;
}

void Node_server::subscription_refused(const Refusal& refusal) {
  constexpr std::uint64_t lines = 8;
  context_.log.limited(
      Log_level::warning, "refused",
      [&] {
        return "subscription of " + to_string(refusal.from.peer) + " to event group " +
               hexadecimal(refusal.event_group) + " of " +
               text_of(context_.deployment, refusal.key) +
               " refused: " + std::string(refusal.cause);
      },
      lines);
}

void Node_server::list(mw::com::runtime::Peers& peers, Time now) const {
  using mw::com::runtime::Peers;
  using mw::com::runtime::Subscriber;
  for (const auto& [key, instance] : offered_) {
    if (peers.offered.size() >= Peers::max_rows) break;
    const Instance_deployment& deployment = instance->deployment();
    peers.offered.push_back({.service = instance->service().name,
                             .serviceId = key.service,
                             .instance = key.instance,
                             .majorVersion = key.major_version,
                             .minorVersion = instance->service().minor_version,
                             .address = context_.own.to_string(),
                             .udpPort = deployment.udp_port.value_or(0),
                             .tcpPort = deployment.tcp_port.value_or(0)});
  }
  const auto add = [&](const Instance_key& key, std::uint16_t event_group, const Origin& from,
                       const Instance_endpoints& endpoints) -> Subscriber& {
    const auto& endpoint = endpoints.udp ? endpoints.udp : endpoints.tcp;
    Subscriber& row = peers.subscribers.emplace_back();
    row.serviceId = key.service;
    row.instance = key.instance;
    row.eventGroup = event_group;
    if (from.local()) {
      row.address = "Unix socket";
      return row;
    }
    row.address = (endpoint ? *endpoint : from.peer).address.to_string();
    if (endpoints.udp) row.udpPort = endpoints.udp->port;
    if (endpoints.tcp) row.tcpPort = endpoints.tcp->port;
    return row;
  };
  // First: they are few and what an integrator looks for.
  for (const Refusal& refusal : discovery_.server().refusals()) {
    Subscriber& row = add(refusal.key, refusal.event_group, refusal.from, refusal.endpoints);
    row.sinceMs = milliseconds_between(refusal.first, now);
    row.refused = refusal.count;
    row.cause = refusal.cause;
  }
  discovery_.server().for_each_subscription([&](const Instance_key& key, std::uint16_t event_group,
                                                const Discovery_server::Subscription& one) {
    if (peers.subscribers.size() >= Peers::max_rows) return;
    Subscriber& row = add(key, event_group, one.subscriber.origin, one.subscriber.endpoints);
    row.subscribed = true;
    row.sinceMs = milliseconds_between(one.since, now);
    row.ttlLeftMs = milliseconds_between(now, one.expires);
    const std::uint64_t sent = sent_to_all(key, event_group);
    row.sent = one.values + sent - one.sent_before.value_or(sent);
    row.refused = one.refused;
  });
}

void Node_server::subscribers_settled(const Instance_key& key, std::uint16_t event_group) {
  const auto instance = offered_.find(key);
  if (instance == offered_.end()) return;
  for (Event_channel* channel : instance->second->group(event_group))
    channel->release();
}

}  // namespace someip
