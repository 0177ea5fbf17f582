#include "tools/posctl/offers.h"

#include <algorithm>
#include <stdexcept>
#include <system_error>

namespace posctl {

using someip::Address;
using someip::Endpoint;

void read_offers(const someip::Udp_socket& socket,
                 std::size_t max_entries,
                 bool ipv4,
                 const Take_offer& take) {
  constexpr std::size_t max_datagram = 65536;
  std::vector<std::byte> buffer(max_datagram);
  someip::Udp_socket::Arrival arrival;
  arrival.begin = buffer;
  while (socket.receive(arrival)) {
    someip::Datagram_reader reader(someip::Bytes(buffer.data(), arrival.size));
    while (const auto view = reader.next()) {
      if (view->header.service != someip::discovery_service) continue;
      const auto message = someip::read_discovery_message(view->payload, max_entries);
      if (!message) continue;
      for (const auto& entry : message->entries) {
        if (entry.type != someip::Entry_type::offer_service) continue;
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

}  // namespace posctl
