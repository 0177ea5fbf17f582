#include "tools/posctl/offer_table.h"

#include <algorithm>
#include <stdexcept>
#include <system_error>

#include "platform/someip/base/hexadecimal.h"

namespace posctl {

using someip::Address;
using someip::Endpoint;
using someip::hexadecimal;

void read_offers(const someip::Udp_socket& socket,
                 std::size_t max_entries,
                 bool ipv4,
                 const Take_offer& take) {
  constexpr std::size_t max_datagram = 65536;
  constexpr int most_datagrams = 32;
  constexpr int most_offers = 256;
  std::vector<std::byte> buffer(max_datagram);
  someip::Udp_socket::Arrival arrival;
  arrival.begin = buffer;
  int datagrams = 0;
  int offers = 0;
  while (datagrams < most_datagrams && offers < most_offers && socket.receive(arrival)) {
    ++datagrams;
    someip::Datagram_reader reader(someip::Bytes(buffer.data(), arrival.size));
    while (const auto view = reader.next()) {
      if (view->header.service != someip::discovery_service) continue;
      const auto message = someip::read_discovery_message(view->payload, max_entries);
      if (!message) continue;
      for (const auto& entry : message->entries) {
        if (entry.type != someip::Entry_type::offer_service) continue;
        ++offers;
        const auto options = message->options_of(entry, ipv4);
        const Endpoint from = message->discovery_endpoint(ipv4).value_or(arrival.from.endpoint());
        take({entry.service, entry.instance, entry.major_version},
             {from, entry.minor_version, entry.ttl, options.udp, options.tcp,
              someip::end_of_life(someip::Time::clock::now(), entry.ttl, someip::endless_ttl)});
      }
    }
  }
}

Group_listener::Group_listener(const someip::Deployment& deployment, const std::string& node)
    : limit_(deployment.limits.entries_per_discovery_message),
      ipv4_(deployment.discovery.multicast_address.is_v4()),
      socket_(deployment.discovery.multicast_address) {
  const auto& discovery = deployment.discovery;
  socket_.reuse_address();
  if (const auto error = socket_.bind({discovery.multicast_address, discovery.port})) {
    throw std::runtime_error("cannot bind " +
                             to_string(Endpoint{discovery.multicast_address, discovery.port}) +
                             ": " + error.message());
  }
  const auto found = std::ranges::find(deployment.nodes, node, &someip::Node_deployment::name);
  if (found == deployment.nodes.end()) {
    throw std::runtime_error(deployment.source + ": nodes: expected a node \"" + node + "\"");
  }
  std::error_code error = std::make_error_code(std::errc::address_not_available);
  for (const Address& address : found->addresses) {
    error = socket_.join(discovery.multicast_address, address);
    if (!error) return;
  }
  // A listener needs no address of its own: that of another node of this machine serves too.
  for (const someip::Node_deployment& other : deployment.nodes) {
    for (const Address& address : other.addresses) {
      if (!socket_.join(discovery.multicast_address, address)) return;
    }
  }
  throw std::runtime_error("cannot join " + discovery.multicast_address.to_string() +
                           " on an address of node \"" + node + "\": " + error.message());
}

void Offer_table::take(const someip::Instance_key& key, const Seen_offer& offer) {
  const Key place{key, offer.from};
  const auto known = offers_.find(place);
  if (offer.ttl == 0) {
    if (known == offers_.end()) return;
    const Seen_offer last = known->second;
    offers_.erase(known);
    tell_("withdrawn", place, last);
    return;
  }
  if (known == offers_.end()) {
    if (offers_.size() >= most_) return;
    offers_.emplace(place, offer);
    tell_("offered", place, offer);
    return;
  }
  const bool same = known->second.same(offer);
  known->second = offer;
  if (!same) tell_("changed", place, offer);
}

void Offer_table::expire(someip::Time now) {
  for (auto known = offers_.begin(); known != offers_.end();) {
    if (known->second.expires > now) {
      ++known;
      continue;
    }
    const auto gone = *known;
    known = offers_.erase(known);
    tell_("expired", gone.first, gone.second);
  }
}

const someip::Service_deployment* Offer_table::service_of(const Key& key) const {
  const auto& services = deployment_.services;
  const auto found =
      std::ranges::find(services, key.instance.service, &someip::Service_deployment::id);
  return found == services.end() ? nullptr : &*found;
}

Json Offer_table::json_of(const Key& key, const Seen_offer& offer) const {
  Json json{{"serviceId", hexadecimal(key.instance.service)},
            {"instance", hexadecimal(key.instance.instance)},
            {"majorVersion", key.instance.major_version},
            {"minorVersion", offer.minor_version},
            {"from", to_string(offer.from)}};
  if (offer.udp) json["udp"] = to_string(*offer.udp);
  if (offer.tcp) json["tcp"] = to_string(*offer.tcp);
  json["ttlS"] = offer.ttl == someip::endless_ttl ? Json() : Json(offer.ttl);
  const auto* const service = service_of(key);
  json["service"] = service == nullptr ? Json() : Json(service->name);
  if (service != nullptr && service->major_version != key.instance.major_version) {
    json["manifestMajorVersion"] = service->major_version;
  }
  return json;
}

Json Offer_table::json() const {
  Json json{{"schema", 1}, {"offers", Json::array()}};
  for (const auto& [key, offer] : offers_)
    json["offers"].push_back(json_of(key, offer));
  return json;
}

}  // namespace posctl
