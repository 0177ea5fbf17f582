#include "platform/someip/node/node_server.h"

#include <algorithm>
#include <exception>
#include <string>
#include <unordered_set>
#include <utility>

#include "platform/someip/base/hexadecimal.h"
#include "platform/someip/node/causes.h"

namespace someip {

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
      ports_(
          context,
          [&discovery](const Endpoint& client) {
            discovery.client_lost(client, Time::clock::now());
          },
          [this](const Returned_datagram& returned) { port_closed(returned); }),
      local_(listen_locally()) {}

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
  ports_.serve(frame, client);
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
  ports_.watch();
}

void Node_server::close_connections() {
  if (local_) local_->close();
  ports_.close_connections();
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

bool Node_server::has_connection(const Offer& offer, const Endpoint& client) {
  if (is_local_address(client.address)) return true;
  const auto instance = offered_.find(offer.key);
  if (instance == offered_.end()) return false;
  const auto connections = ports_.connections(instance->second->deployment());
  return connections && connections->connection_of(client) != nullptr;
}

std::shared_ptr<Provided_instance> Node_server::provide(
    const Service_deployment& service,
    const Instance_deployment& instance,
    const Value_missing_handler& value_missing) {
  return std::make_shared<Provided_instance>(service, instance, ports_.open(instance),
                                             context_.deployment.limits, context_.counters,
                                             value_missing);
}

void Node_server::offer(std::shared_ptr<Provided_instance> instance) {
  ports_.add(instance);
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
  ports_.remove(*instance);
  context_.control.post([this, instance = std::move(instance)] {
    const auto found = offered_.find(instance->key());
    if (found == offered_.end() || found->second != instance) return;
    discovery_.stop_offer(instance->key(), Time::clock::now());
    offered_.erase(instance->key());
  });
}

std::shared_ptr<Event_targets> Node_server::targets_of(const Provided_instance& instance,
                                                       const std::vector<Subscriber>& subscribers) {
  const auto connections = ports_.connections(instance.deployment());
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
    if (!connections || !endpoints.tcp || !tcp_known.insert(*endpoints.tcp).second) continue;
    if (auto stream = connections->connection_of(*endpoints.tcp)) {
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
    // If every notification goes by multicast, a subscriber may name no UDP endpoint.
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
  discovery_.server().for_each_subscription(
      [&](const Instance_key& key, std::uint16_t event_group,
          const Discovery_server::Accepted_subscription& one) {
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
