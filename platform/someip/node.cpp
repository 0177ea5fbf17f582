#include "platform/someip/node.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <future>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

namespace someip {

/// A port with services behind it.
class Node::Service_port final : public Udp_port::Receiver {
 public:
  Service_port(std::unique_ptr<Udp_socket> socket, Node& node)
      : port(std::make_shared<Udp_port>(std::move(socket),
                                        *this,
                                        node.workers_,
                                        node.reassembler_,
                                        node.shaper_,
                                        node.counters_,
                                        node.log_)),
        requests_(node.requests_),
        counters_(node.counters_) {}

  void received(Received message, const Endpoint& from, Udp_port&, Tasks& tasks) override {
    table.dispatch(std::move(message), from, {port, nullptr, Socket_address(from)}, tasks,
                   requests_, counters_);
  }

  Service_table table;
  const std::shared_ptr<Udp_port> port;

 private:
  Request_budget& requests_;
  Counters& counters_;
};

namespace {

std::string key_of(const Node_deployment& node) {
  return "nodes." + node.name + (node.addresses.size() > 1 ? ".addresses" : ".address");
}

}  // namespace

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

Node::Node(const Deployment& deployment,
           const Node_deployment& node,
           Workers& workers,
           Log_sink log)
    : deployment_(deployment),
      node_(node),
      workers_(workers),
      log_(std::move(log)),
      reassembler_(deployment.limits),
      requests_(deployment.limits.queued_requests),
      shaper_(deployment, workers.control(), counters_),
      calls_(deployment.limits.pending_calls),
      closed_ports_(workers.control()),
      timer_(workers.control()),
      call_timer_(workers.control()) {
  take_address();
  client_port_ = open_client_port();
  Discovery::Host host{
      *this, *this,
      [this](const std::vector<std::byte>& message, const Discovery_outbox::Destination& to) {
        channel_->send(message, to);
      },
      [this](const Address& peer, Time last_contact) { peer_restarted(peer, last_contact); }};
  discovery_ =
      std::make_unique<Discovery>(deployment, node, own_, counters_, log_, std::move(host));
  tcp_client_ = std::make_unique<Tcp_client>(
      own_, deployment.limits, workers, counters_, log_,
      Tcp_client::Events{[this](const Endpoint& server) {
                           change([&](Discovery_server&, Discovery_client& client) {
                             client.connected(server);
                           });
                         },
                         [this](const Endpoint& server) { connection_lost(server); },
                         [this](Received message, const Endpoint& server, Tasks& tasks) {
                           dispatch(std::move(message), server, Transport::tcp, tasks);
                         }});
  link_ = node.watch_link ? std::make_unique<Link_watch>(workers.control(), own_, log_)
                          : std::make_unique<Link_watch>(workers.control(), own_);
  client_port_->open_with_thread();
  on_control([this] {
    closed_ports_.start([this](const Returned_datagram& returned) { port_closed(returned); });
    channel_->start(
        [this](Bytes datagram, const Endpoint& from, bool multicast) {
          // A port that was closed before its owner subscribed again must not end the new
          // subscription.
          if (!multicast) closed_ports_.look();
          discovery_->received(datagram, from, multicast, std::chrono::steady_clock::now());
          schedule();
        },
        link_->watching());
    link_->start([this](bool up) { link_changed(up); });
    if (link_->up()) {
      channel_->link_changed(true);
    } else {
      discovery_->link_changed(false, std::chrono::steady_clock::now());
      log_.write(Log_level::warning, own_.to_string() +
                                         " has no link yet: no interface that runs "
                                         "has this address");
    }
  });
}

Node::~Node() {
  stop();
}

void Node::take_address() {
  std::string tried;
  for (const Address& address : node_.addresses) {
    try {
      channel_ = std::make_unique<Discovery_channel>(workers_.control(), deployment_.discovery,
                                                     address, counters_, log_);
      own_ = address;
      return;
    } catch (const std::system_error& error) {
      const bool taken = error.code() == std::errc::address_in_use;
      tried +=
          (tried.empty() ? "" : "; ") + address.to_string() +
          (taken ? " is taken by another process" : " cannot be used: " + error.code().message());
    }
  }
  throw std::runtime_error(deployment_.source + ": " + key_of(node_) + ": " +
                           (tried.empty() ? "no address given" : tried) +
                           " (each process needs an address of its own, with port " +
                           std::to_string(deployment_.discovery.port) + " free)");
}

std::shared_ptr<Udp_port> Node::open_client_port() {
  auto socket = std::make_unique<Udp_socket>(own_);
  socket->allow_missing_address();
  if (const auto error = socket->bind({own_, node_.client_port})) {
    throw std::runtime_error(deployment_.source + ": nodes." + node_.name + ".clientPort: port " +
                             std::to_string(node_.client_port) + " of " + own_.to_string() +
                             " cannot be used: " + error.message());
  }
  return std::make_shared<Udp_port>(std::move(socket), static_cast<Udp_port::Receiver&>(*this),
                                    workers_, reassembler_, shaper_, counters_, log_);
}

void Node::stop() {
  std::call_once(stopped_once_, [this] {
    std::promise<void> done;
    boost::asio::post(workers_.control(), [this, &done] {
      discovery_->change(std::chrono::steady_clock::now(),
                         [](Discovery_server& server, Discovery_client& client) {
                           client.unsubscribe_all();
                           server.stop_all();
                         });
      stopped_ = true;
      channel_->stop();
      closed_ports_.stop();
      link_->stop();
      shaper_.stop();
      timer_.cancel();
      call_timer_.cancel();
      for (auto& [group, port] : multicast_ports_)
        port.first->close();
      tcp_client_->close();
      const std::lock_guard lock(ports_mutex_);
      for (auto& [number, port] : tcp_ports_)
        port->close();
      done.set_value();
    });
    done.get_future().wait();
    client_port_->close();
    {
      const std::lock_guard lock(ports_mutex_);
      for (auto& [number, port] : udp_ports_)
        port->port->close();
    }
    expire_calls(true);
  });
}

void Node::on_control(std::function<void()> work) {
  boost::asio::post(workers_.control(), [this, work = std::move(work)] {
    if (!stopped_) work();
  });
}

void Node::change(const std::function<void(Discovery_server&, Discovery_client&)>& work) {
  discovery_->change(std::chrono::steady_clock::now(), work);
  schedule();
}

void Node::schedule() {
  const Time next = discovery_->next_deadline();
  if (stopped_ || next == Time::max()) return;
  timer_.expires_at(next);
  timer_.async_wait([this](const boost::system::error_code& cancelled) {
    if (cancelled || stopped_) return;
    discovery_->on_time(std::chrono::steady_clock::now());
    schedule();
  });
}

void Node::peer_restarted(const Address& peer, Time last_contact) {
  reassembler_.forget(peer);
  tcp_client_->restart(peer, last_contact);
  const std::lock_guard lock(ports_mutex_);
  for (const auto& [number, port] : tcp_ports_)
    port->forget(peer, last_contact);
}

void Node::link_changed(bool up) {
  if (up) {
    log_.write(Log_level::info, "the link of " + own_.to_string() + " is up");
    channel_->link_changed(true);
    const std::lock_guard lock(ports_mutex_);
    for (const auto& [number, port] : udp_ports_)
      static_cast<void>(port->port->socket().multicast_from(own_));
  } else {
    counters_.links_lost.add();
    log_.write(Log_level::warning, "the link of " + own_.to_string() + " is down");
    channel_->link_changed(false);
    shaper_.clear();
    const std::lock_guard lock(ports_mutex_);
    for (const auto& [number, port] : tcp_ports_)
      port->drop_connections();
  }
  discovery_->link_changed(up, std::chrono::steady_clock::now());
  schedule();
}

void Node::port_closed(const Returned_datagram& returned) {
  // Only what we could have sent: an event of ours.
  const Header& header = returned.header;
  const bool ours = std::ranges::any_of(offered_, [&](const auto& offered) {
    const auto& [key, instance] = offered;
    return key.service == header.service && key.major_version == header.interface_version &&
           instance->has_event(header.method);
  });
  const auto type = static_cast<std::uint8_t>(header.type & ~segment_flag);
  if (!ours || type != static_cast<std::uint8_t>(Message_type::notification)) return;
  std::size_t ended = 0;
  change([&](Discovery_server& server, Discovery_client&) {
    ended = server.port_closed(returned.destination);
  });
  if (ended == 0) return;
  log_.limited(Log_level::warning, "closed",
               to_string(returned.destination) + " is closed: its subscriptions (" +
                   std::to_string(ended) + ") have ended");
}

// Providing

std::shared_ptr<Node::Service_port> Node::udp_port(const Instance_deployment& instance) {
  if (!instance.udp_port) return nullptr;
  std::unique_lock lock(ports_mutex_);
  const auto known = udp_ports_.find(*instance.udp_port);
  if (known != udp_ports_.end()) return known->second;
  auto socket = std::make_unique<Udp_socket>(own_);
  socket->allow_missing_address();
  if (const auto error = socket->bind({own_, *instance.udp_port})) {
    throw std::runtime_error(deployment_.source + ": udpPort of instance \"" + instance.specifier +
                             "\": port " + std::to_string(*instance.udp_port) + " of " +
                             own_.to_string() + " cannot be used: " + error.message());
  }
  const auto no_multicast = socket->multicast_from(own_);
  closed_ports_.add(*socket);
  const auto port = std::make_shared<Service_port>(std::move(socket), *this);
  port->port->open();
  udp_ports_.emplace(*instance.udp_port, port);
  lock.unlock();
  if (no_multicast) {
    log_.limited(Log_level::warning, "multicast",
                 "no multicast from " + own_.to_string() + ": " + no_multicast.message());
  }
  return port;
}

std::shared_ptr<Tcp_service_port> Node::tcp_port(const Instance_deployment& instance) {
  if (!instance.tcp_port) return nullptr;
  const std::lock_guard lock(ports_mutex_);
  const auto known = tcp_ports_.find(*instance.tcp_port);
  if (known != tcp_ports_.end()) return known->second;
  std::shared_ptr<Tcp_service_port> port;
  try {
    port =
        std::make_shared<Tcp_service_port>(Endpoint{own_, *instance.tcp_port}, deployment_.limits,
                                           requests_, workers_, counters_, log_);
  } catch (const boost::system::system_error& error) {
    throw std::runtime_error(deployment_.source + ": tcpPort of instance \"" + instance.specifier +
                             "\": port " + std::to_string(*instance.tcp_port) + " of " +
                             own_.to_string() + " cannot be used: " + error.code().message());
  }
  on_control([this, port] {
    port->start([this] { return admit_connection(); },
                [this](const Endpoint& client) {
                  change([&](Discovery_server& server, Discovery_client&) {
                    server.connection_lost(client);
                  });
                });
  });
  return tcp_ports_.emplace(*instance.tcp_port, std::move(port)).first->second;
}

std::shared_ptr<Tcp_service_port> Node::tcp_port_of(const Instance_key& key) {
  const auto instance = offered_.find(key);
  return instance == offered_.end() ? nullptr : tcp_port(instance->second->deployment());
}

bool Node::admit_connection() {
  const std::lock_guard lock(ports_mutex_);
  std::size_t count = 0;
  for (const auto& [number, port] : tcp_ports_)
    count += port->connections();
  return count < deployment_.limits.tcp_connections;
}

bool Node::has_connection(const Offer& offer, const Endpoint& client) {
  const auto port = tcp_port_of(offer.key);
  return port && port->connection_of(client) != nullptr;
}

std::shared_ptr<Provided_instance> Node::provide(const Service_deployment& service,
                                                 const Instance_deployment& instance) {
  const auto udp = udp_port(instance);
  static_cast<void>(tcp_port(instance));
  return std::make_shared<Provided_instance>(service, instance, udp ? udp->port : nullptr,
                                             deployment_.limits, counters_);
}

void Node::offer(std::shared_ptr<Provided_instance> instance) {
  if (const auto port = udp_port(instance->deployment())) port->table.add(instance);
  if (const auto port = tcp_port(instance->deployment())) port->table.add(instance);
  on_control([this, instance = std::move(instance)] {
    const Service_deployment& service = instance->service();
    const Instance_deployment& deployment = instance->deployment();
    Offer offer;
    offer.key = instance->key();
    offer.minor_version = service.minor_version;
    if (deployment.udp_port) offer.endpoints.udp = Endpoint{own_, *deployment.udp_port};
    if (deployment.tcp_port) offer.endpoints.tcp = Endpoint{own_, *deployment.tcp_port};
    offer.groups = event_groups(service, &deployment);
    offer.allowed_peers = service.allowed_peers;
    offered_[offer.key] = instance;
    change([&](Discovery_server& server, Discovery_client&) {
      server.offer(std::move(offer), std::chrono::steady_clock::now());
    });
  });
}

void Node::stop_offer(std::shared_ptr<Provided_instance> instance) {
  if (const auto port = udp_port(instance->deployment())) port->table.remove(*instance);
  if (const auto port = tcp_port(instance->deployment())) port->table.remove(*instance);
  on_control([this, instance = std::move(instance)] {
    const auto found = offered_.find(instance->key());
    if (found == offered_.end() || found->second != instance) return;
    change(
        [&](Discovery_server& server, Discovery_client&) { server.stop_offer(instance->key()); });
    offered_.erase(instance->key());
  });
}

void Node::subscribers_changed(const Instance_key& key,
                               std::uint16_t event_group,
                               const std::vector<Subscriber>& all,
                               const std::vector<Subscriber>& fresh) {
  const auto instance = offered_.find(key);
  if (instance == offered_.end()) return;
  const auto tcp = tcp_port(instance->second->deployment());
  const auto targets_of = [&](const std::vector<Subscriber>& subscribers) {
    auto targets = std::make_shared<Event_targets>();
    std::set<Endpoint> udp_known, tcp_known;  // a client in two subscriptions gets each event once
    for (const Subscriber& subscriber : subscribers) {
      const Instance_endpoints& endpoints = subscriber.endpoints;
      if (endpoints.udp && udp_known.insert(*endpoints.udp).second) {
        targets->udp.emplace_back(*endpoints.udp);
      }
      if (!tcp || !endpoints.tcp || !tcp_known.insert(*endpoints.tcp).second) continue;
      if (auto stream = tcp->connection_of(*endpoints.tcp)) {
        targets->streams.push_back(std::move(stream));
      }
    }
    return targets;
  };
  auto targets = targets_of(all);
  for (const Multicast_deployment& multicast : instance->second->deployment().multicast) {
    if (multicast.event_group != event_group || multicast.threshold == 0) continue;
    // Where all is multicast, a subscriber need not say where it listens.
    const auto receivers = multicast.threshold == 1 ? all.size() : targets->udp.size();
    if (receivers < multicast.threshold) continue;
    targets->udp = {Socket_address(Endpoint{multicast.address, multicast.port})};
  }
  for (Event_channel* channel : instance->second->group(event_group)) {
    if (fresh.empty()) {
      channel->hold(targets);
    } else {
      channel->send_initial(targets_of(fresh));
    }
  }
}

void Node::subscribers_settled(const Instance_key& key, std::uint16_t event_group) {
  const auto instance = offered_.find(key);
  if (instance == offered_.end()) return;
  for (Event_channel* channel : instance->second->group(event_group))
    channel->release();
}

}  // namespace someip
