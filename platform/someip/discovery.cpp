#include "platform/someip/discovery.h"

#include <algorithm>
#include <string>

namespace someip {

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
      peers_(deployment.limits.discovery_peers),
      outbox_(peers_,
              [this](const std::vector<std::byte>& bytes, const Discovery_outbox::Destination& to) {
                counters_.discovery_sent.add();
                host_.send(bytes, to);
              }),
      server_(deployment.discovery, deployment.limits, delays_, outbox_, counters, host_.server),
      client_(deployment.discovery, deployment.limits, delays_, outbox_, counters, host_.client) {
  for (const Service_deployment& service : deployment.services) {
    services_[{service.id, service.major_version}] = &service;
  }
}

void Discovery::drop(const Endpoint& from, const char* why) {
  counters_.dropped_discovery_malformed.add();
  log_.limited(Log_level::warning, why,
               "service discovery message from " + to_string(from) + " dropped: " + why);
}

bool Discovery::acceptable(const Endpoint& endpoint) const {
  return endpoint.port != 0 && endpoint.address != own_ &&
         reachable_peer(endpoint.address, own_, node_.prefix_length);
}

bool Discovery::acceptable(const Instance_endpoints& endpoints) const {
  return (!endpoints.udp || acceptable(*endpoints.udp)) &&
         (!endpoints.tcp || acceptable(*endpoints.tcp));
}

void Discovery::received(Bytes datagram, const Endpoint& from, bool multicast, Time now) {
  counters_.discovery_received.add();
  if (!link_up_) return;  // still in the socket when the link was lost
  if (!acceptable(from)) {
    counters_.dropped_foreign_peer.add();
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

void Discovery::message(const Message_view& view, Endpoint from, bool multicast, Time now) {
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
  if (const auto told = message->discovery_endpoint(own_.is_v4())) {
    if (!acceptable(*told)) {
      drop(from, "its discovery endpoint is not on this link");
      return;
    }
    from = *told;
  }

  const Time last_contact = peers_.last_contact(from);
  switch (peers_.heard(from, multicast, header.session, message->reboot, now)) {
    case Discovery_peers::Verdict::known:
      break;
    case Discovery_peers::Verdict::refused:
      counters_.refused_peers.add();
      log_.limited(Log_level::warning, "peers",
                   "too many peers: " + to_string(from) + " is not listened to");
      return;
    case Discovery_peers::Verdict::restarted:
      counters_.peer_restarts.add();
      log_.limited(Log_level::info, "restart", to_string(from) + " has restarted");
      server_.forget_peer(from);
      client_.forget_peer(from, now);
      host_.peer_restarted(from.address, last_contact);
      break;
  }
  for (const Entry& one : message->entries)
    entry(*message, one, from, multicast, now);
}

void Discovery::entry(const Discovery_message& message,
                      const Entry& entry,
                      const Endpoint& from,
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
  const Entry_options options = message.options_of(entry, own_.is_v4());
  if (entry.type == Entry_type::subscribe) {
    server_.subscribe(
        entry, options,
        [this](const Instance_endpoints& endpoints) { return acceptable(endpoints); }, from,
        message.explicit_initial_data, now);
  } else {
    client_.acknowledged(entry, options, from, now);
  }
}

void Discovery::offer_entry(const Discovery_message& message,
                            const Entry& entry,
                            const Endpoint& from,
                            bool multicast,
                            Time now) {
  const auto service = services_.find({entry.service, entry.major_version});
  if (service == services_.end()) return;  // nothing that we know how to use
  const auto& allowed = service->second->allowed_peers;
  const bool foreign =
      !allowed.empty() && std::ranges::find(allowed, from.address) == allowed.end();
  const Entry_options options = message.options_of(entry, own_.is_v4());
  const Instance_endpoints endpoints{options.udp, options.tcp};
  const bool usable = !options.fault && acceptable(endpoints) && (options.udp || options.tcp) &&
                      entry.instance != 0 && entry.instance != any_instance;
  if (foreign || (entry.ttl != 0 && !usable)) {
    (foreign ? counters_.dropped_foreign_peer : counters_.dropped_entries).add();
    log_.limited(Log_level::warning, "offer",
                 "offer of " + service->second->name + " from " + to_string(from) + " ignored: " +
                     (foreign ? "not an allowed peer" : "its endpoints cannot be used"));
    return;
  }
  client_.offered(entry, endpoints, from, multicast, message.explicit_initial_data, now);
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
  }
  settle(now);
}

void Discovery::settle(Time now) {
  // A subscriber that has been acknowledged misses nothing that happens afterwards; its initial
  // values follow the acknowledgement.
  server_.deliver_subscribers();
  outbox_.flush(now);
  server_.deliver_initial_values();
}

Time Discovery::next_deadline() const {
  return std::min(server_.next_deadline(), client_.next_deadline());
}

}  // namespace someip
