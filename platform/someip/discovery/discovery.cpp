#include "platform/someip/discovery/discovery.h"

#include <algorithm>
#include <string>

namespace someip {

namespace {

/// For the log: the peer, and the sender of its messages if that is another address.
std::string text_of(const Origin& origin) {
  const std::string peer = to_string(origin.peer);
  return origin.direct() ? peer : peer + " (says " + origin.sender.to_string() + ")";
}

/// True if an element of the service uses the transport.
bool needs(const Service_deployment& service, Transport transport) {
  const auto any = [&](const auto& elements) {
    return std::ranges::any_of(elements,
                               [&](const auto& one) { return one.transport == transport; });
  };
  return any(service.methods) || any(service.events) || any(service.fields);
}

}  // namespace

Discovery::Discovery(const Deployment& deployment,
                     const Node_deployment& node,
                     const Address& own,
                     Counters& counters,
                     Log& log,
                     Host host)
    : deployment_(deployment),
      node_(node),
      own_(own),
      counters_(counters),
      log_(log),
      host_(std::move(host)),
      delays_(deployment.discovery),
      peers_(deployment.limits),
      outbox_(peers_,
              [this](const std::vector<std::byte>& bytes, const Discovery_outbox::Destination& to) {
                counters_.discovery_sent.add();
                host_.send(bytes, to);
              }),
      server_(deployment.discovery, deployment.limits, delays_, outbox_, counters, host_.server),
      client_(deployment.discovery, deployment.limits, delays_, outbox_, counters, host_.client) {
  for (const Service_deployment& service : deployment.services) {
    services_[{service.id, service.major_version}] = {&service, needs(service, Transport::udp),
                                                      needs(service, Transport::tcp)};
  }
}

void Discovery::drop(const Endpoint& from, const char* why) {
  counters_.dropped_discovery_malformed.add();
  log_.limited(Log_level::warning, why,
               "service discovery message from " + to_string(from) + " dropped: " + why);
}

void Discovery::refuse_stranger(const Endpoint& stranger) {
  counters_.dropped_foreign_peer.add();
  log_.limited(Log_level::warning, "stranger",
               "service discovery message from " + to_string(stranger) +
                   " dropped: no service has it among its allowed peers");
}

bool Discovery::acceptable(const Endpoint& endpoint) const {
  return endpoint.port != 0 && endpoint.address != own_ &&
         reachable_peer(endpoint.address, own_, node_.prefix_length);
}

bool Discovery::welcome(const Origin& origin) const {
  return std::ranges::any_of(deployment_.services, [&](const Service_deployment& service) {
    return allows(service.allowed_peers, origin);
  });
}

void Discovery::received(Bytes datagram, const Endpoint& from, bool multicast, Time now) {
  counters_.discovery_received.add();
  const bool local = is_local_address(from.address);
  if (!link_up_ && !local) return;  // still in the socket when the link was lost
  if (node_.only_peer && !local && from.address != *node_.only_peer) return;
  if (!local && !acceptable(from)) {
    counters_.dropped_foreign_peer.add();
    if (!reachable_peer(from.address, own_, node_.prefix_length)) {
      log_.repeated("subnet", Endpoint_hash{}({from.address, 0}), [&] {
        return "service discovery messages of " + to_string(from) +
               " are dropped: its address is outside the subnet of " + own_.to_string() + "/" +
               std::to_string(node_.prefix_length);
      });
    }
    return;
  }
  if (!welcome({from.address, from})) {
    refuse_stranger(from);
    return;
  }
  Datagram_reader reader(datagram);
  while (const auto view = reader.next())
    message(*view, from, multicast, now);
  if (reader.malformed()) drop(from, "its length is wrong");
  // Subscriptions that unicast offers ask for go at once.
  client_.on_time(now);
  settle(now);
}

void Discovery::message(const Message_view& view, const Endpoint& from, bool multicast, Time now) {
  const Header& header = view.header;
  if (header.service != discovery_service || header.method != discovery_method ||
      header.protocol != protocol_version || header.interface_version != 1 ||
      !header.is(Message_type::notification) || header.code != 0 || header.session == 0) {
    drop(from, "its header is not that of service discovery");
    return;
  }
  const auto message =
      read_discovery_message(view.payload, deployment_.limits.entries_per_discovery_message);
  if (!message) {
    drop(from, "its arrays do not fit or hold too many entries");
    return;
  }
  Origin origin{from.address, from};
  if (is_local_address(from.address)) {
    entries(*message, origin, multicast, now);
    return;
  }
  if (const auto named = message->discovery_endpoint(own_.is_v4())) {
    if (!acceptable(*named)) {
      drop(from, "its discovery endpoint is not on this link");
      return;
    }
    origin.peer = *named;
    if (!welcome(origin)) {
      refuse_stranger(*named);
      return;
    }
  }

  const Time last_contact = peers_.last_contact(origin);
  switch (peers_.received(origin, multicast, header.session, message->reboot, now)) {
    case Discovery_peers::Verdict::known:
      break;
    case Discovery_peers::Verdict::refused:
      counters_.refused_peers.add();
      log_.limited(Log_level::warning, "peers",
                   "too many peers: the messages of " + to_string(from) + " are dropped");
      return;
    case Discovery_peers::Verdict::restarted:
      counters_.peer_restarts.add();
      log_.limited(Log_level::info, "restart", text_of(origin) + " has restarted");
      server_.forget_peer(origin);
      client_.forget_peer(origin, now);
      if (origin.direct()) host_.peer_restarted(origin.sender, last_contact);
      break;
  }
  entries(*message, origin, multicast, now);
}

void Discovery::entries(const Discovery_message& message,
                        const Origin& from,
                        bool multicast,
                        Time now) {
  for (Entry one : message.entries) {
    if (from.local() && one.ttl != 0) one.ttl = endless_ttl;
    entry(message, one, from, multicast, now);
  }
}

void Discovery::entry(const Discovery_message& message,
                      const Entry& entry,
                      const Origin& from,
                      bool multicast,
                      Time now) {
  switch (entry.type) {
    case Entry_type::find_service:
      if (entry.ttl == 0 || message.options_of(entry, own_.is_v4()).fault) {
        counters_.dropped_entries.add();
        return;
      }
      server_.find(entry, from, multicast, message.unicast, now);
      return;
    case Entry_type::offer_service:
      offer_entry(message, entry, from, multicast, now);
      return;
    case Entry_type::subscribe:
    case Entry_type::subscribe_ack:
      break;
  }
  // Event group entries travel by unicast only (someipsd_818).
  if (multicast) {
    counters_.dropped_entries.add();
    return;
  }
  Entry_options options = message.options_of(entry, own_.is_v4());
  if (entry.type == Entry_type::subscribe) {
    // The events take the connection, whatever the options say.
    if (from.local()) options = {false, from.peer, from.peer, {}};
    const bool for_others = deployment_.discovery.subscriptions_for_others;
    const auto deliverable = [&](const Endpoint& endpoint) {
      return from.local() ||
             (acceptable(endpoint) && (for_others || endpoint.address == from.sender));
    };
    server_.subscribe(
        entry, options,
        [&](const Instance_endpoints& endpoints) { return endpoints.all(deliverable); }, from,
        message.explicit_initial_data, now);
  } else {
    client_.acknowledged(entry, options, from, now);
  }
}

void Discovery::offer_entry(const Discovery_message& message,
                            const Entry& entry,
                            const Origin& from,
                            bool multicast,
                            Time now) {
  const auto service = services_.find({entry.service, entry.major_version});
  if (service == services_.end()) {
    const auto other = services_.lower_bound({entry.service, 0});
    const bool known = other != services_.end() && other->first.first == entry.service;
    if (known && entry.ttl != 0) misfit(Misfit::Cause::version, entry, from, now);
    return;  // nothing that we know how to use
  }
  const auto& allowed = service->second.deployment->allowed_peers;
  const Entry_options options = message.options_of(entry, own_.is_v4());
  Instance_endpoints endpoints{options.udp, options.tcp};
  if (from.local()) {
    // Only the node at the listening end of a Unix socket offers through it.
    if (!is_local_address(own_)) {
      counters_.dropped_foreign_peer.add();
      return;
    }
    for (auto* endpoint : {&endpoints.udp, &endpoints.tcp}) {
      if (*endpoint) (*endpoint)->address = from.sender;
    }
  }
  const bool foreign = !allows(allowed, from, endpoints);
  const bool usable = !options.fault && (options.udp || options.tcp) &&
                      endpoints.all([&](const Endpoint& one) {
                        return from.local() ? one.port != 0 : acceptable(one);
                      }) &&
                      entry.instance != 0 && entry.instance != any_instance;
  if (foreign || (entry.ttl != 0 && !usable)) {
    (foreign ? counters_.dropped_foreign_peer : counters_.dropped_entries).add();
    log_.limited(
        Log_level::warning, "offer",
        "offer of " + service->second.deployment->name + " from " + text_of(from) +
            " ignored: " + (foreign ? "not an allowed peer" : "its endpoints cannot be used"));
    misfit(foreign ? Misfit::Cause::not_allowed : Misfit::Cause::unusable_endpoint, entry, from,
           now);
    return;
  }
  if (entry.ttl != 0) {
    const auto& [_, needs_udp, needs_tcp] = service->second;
    if (needs_udp && !options.udp) misfit(Misfit::Cause::no_udp, entry, from, now);
    if (needs_tcp && !options.tcp) misfit(Misfit::Cause::no_tcp, entry, from, now);
  }
  client_.offered(entry, endpoints, from, multicast, message.explicit_initial_data, now);
}

void Discovery::misfit(Misfit::Cause cause, const Entry& entry, const Origin& from, Time now) {
  const Instance_key key = key_of(entry);
  host_.client.misfit_offered({cause, key, from}, now);
}

void Discovery::on_time(Time now) {
  server_.on_time(now);
  client_.on_time(now);
  settle(now);
}

void Discovery::link_changed(bool up, Time now) {
  link_up_ = up;
  if (up) {
    server_.link_up(now);
    client_.link_up(now);
  } else {
    server_.link_down();
    client_.link_down(now);
    outbox_.drop_all();
  }
  settle(now);
}

void Discovery::withdraw_all(Time now) {
  client_.unsubscribe_all(now);
  server_.stop_all(now);
  outbox_.flush_all(now);
  settle(now);
}

void Discovery::offer(Offer offer, Time now) {
  server_.offer(std::move(offer), now);
  settle(now);
}

void Discovery::stop_offer(const Instance_key& key, Time now) {
  server_.stop_offer(key, now);
  settle(now);
}

void Discovery::client_lost(const Endpoint& client, Time now) {
  server_.connection_lost(client);
  settle(now);
}

void Discovery::local_client_lost(const Endpoint& client, Time now) {
  server_.forget_peer({client.address, client});
  peers_.forget(client);
  settle(now);
}

std::size_t Discovery::port_closed(const Endpoint& client, Time now) {
  const std::size_t ended = server_.port_closed(client);
  settle(now);
  return ended;
}

void Discovery::start_search(const Instance_key& wanted, Time now) {
  client_.start_search(wanted, now);
  settle(now);
}

void Discovery::stop_search(const Instance_key& wanted, Time now) {
  client_.stop_search(wanted);
  settle(now);
}

void Discovery::subscribe(const Instance_key& key,
                          std::uint16_t event_group,
                          const Group_transport& transport,
                          Time now) {
  client_.subscribe(key, event_group, transport, now);
  settle(now);
}

void Discovery::unsubscribe(const Instance_key& key, std::uint16_t event_group, Time now) {
  client_.unsubscribe(key, event_group, now);
  settle(now);
}

void Discovery::connected(const Endpoint& server, Time now) {
  client_.connected(server, now);
  settle(now);
}

void Discovery::connection_lost(const Endpoint& server, Time now) {
  client_.connection_lost(server);
  settle(now);
}

void Discovery::settle(Time now) {
  // A subscriber that has been acknowledged misses no later event; its initial values follow the
  // acknowledgement.
  server_.deliver_subscribers();
  outbox_.flush(now);
  server_.deliver_initial_values();
  host_.deadline(
      std::min({server_.next_deadline(), client_.next_deadline(), outbox_.next_deadline()}));
}

}  // namespace someip
