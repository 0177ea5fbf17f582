/// The content of the deployment manifest as plain values: the nodes, the discovery timing, the
/// services with their ids, the bounds. platform/linux/com reads the file, platform/someip uses
/// these values.
#pragma once

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/someip/base/endpoint.h"

namespace someip {

using Milliseconds = std::chrono::milliseconds;

/// Service discovery ("serviceDiscovery"). Defaults are the customary ones of AUTOSAR deployments.
struct Discovery_timing {
  boost::asio::ip::address multicast_address = boost::asio::ip::make_address("239.192.0.77");
  std::uint16_t port = 30490;
  Milliseconds initial_delay_min{10};
  Milliseconds initial_delay_max{100};
  Milliseconds repetitions_base_delay{200};
  std::uint32_t repetitions_max = 3;
  Milliseconds cyclic_offer_delay{1000};
  Milliseconds request_response_delay_min{0};
  Milliseconds request_response_delay_max{20};
  /// Time to live of this node's offers and subscriptions, in seconds; 0xFFFFFF never ends.
  std::uint32_t offer_ttl = 3;
  std::uint32_t subscribe_ttl = 3;
  /// The longest times to live accepted from peers; a longer one counts as this one.
  std::uint32_t longest_offer_ttl = 3600;
  std::uint32_t longest_subscribe_ttl = 0xFFFFFF;
  /// True if a peer may direct events to another address than its own.
  bool subscriptions_for_others = false;
};

/// Bounds on everything that a peer can make grow ("limits"). Past a bound the newcomer is refused
/// and counted.
struct Limits {
  std::size_t subscribers_per_event_group = 128;
  std::size_t subscribers_per_address = 16;  ///< of these subscribers
  std::size_t reassemblies = 32;             ///< segment trains in flight, over all peers
  std::size_t reassemblies_per_peer = 8;
  Milliseconds reassembly_timeout{5000};
  std::size_t message_bytes = std::size_t{256} * 1024;  ///< one SOME/IP message, header included
  std::size_t tcp_connections = 64;              ///< accepted ones; also bounds outgoing ones
  std::size_t tcp_connections_per_address = 16;  ///< of the accepted connections
  std::size_t local_connections = 16;            ///< accepted ones of the Unix socket
  std::size_t tcp_send_queue_bytes =
      std::size_t{512} * 1024;  ///< per connection; a slower reader is disconnected
  std::size_t pending_calls = 256;
  std::size_t entries_per_discovery_message = 256;
  std::size_t remote_instances = 1024;             ///< offered instances remembered
  std::size_t remote_instances_per_address = 128;  ///< of these instances, offered by one sender
  std::size_t discovery_peers = 256;               ///< session counters and reboot flags remembered
  std::size_t discovery_peers_per_address = 8;     ///< of these, belonging to one sender
  std::size_t queued_requests = 256;               ///< received, without an answer yet
  std::size_t queued_request_bytes = std::size_t{4} << 20U;  ///< of these requests
  std::size_t queued_notifications = 64;  ///< per event, waiting for a slow handler
  std::size_t queued_notification_bytes = std::size_t{512} * 1024;  ///< of these notifications
  std::size_t queued_segment_bytes = std::size_t{4} << 20U;  ///< long messages whose segments wait
};

/// Spreads the segments of long messages over time ("segments"). The default uses half of the
/// capacity of a 100 Mbit/s line.
struct Segment_shaping {
  std::size_t burst = 8;                  ///< a message of at most N segments leaves at once
  std::chrono::microseconds pause{2000};  ///< between two bursts; 0 turns spreading off
};

enum class Transport : std::uint8_t { udp, tcp };

struct Method_deployment {
  std::string name;
  std::uint16_t id = 0;
  Transport transport = Transport::udp;
  bool fire_and_forget = false;
};

struct Event_deployment {
  std::string name;
  std::uint16_t id = 0;  ///< 0x8000 and above
  std::uint16_t event_group = 0;
  Transport transport = Transport::udp;
};

struct Field_deployment {
  std::string name;
  std::optional<std::uint16_t> getter;
  std::optional<std::uint16_t> setter;
  std::optional<std::uint16_t> notifier;
  std::uint16_t event_group = 0;  ///< of the notifier
  Transport transport = Transport::udp;
};

struct Multicast_deployment {
  std::uint16_t event_group = 0;
  boost::asio::ip::address address;
  std::uint16_t port = 0;
  std::uint32_t threshold = 0;  ///< 0: unicast only; n: multicast for n or more subscribers
};

/// An instance provided by a node of this manifest.
struct Instance_deployment {
  std::uint16_t id = 0;
  std::string specifier;
  std::string node;  ///< the providing node
  std::optional<std::uint16_t> udp_port;
  std::optional<std::uint16_t> tcp_port;
  std::vector<Multicast_deployment> multicast;
};

struct Service_deployment {
  std::string name;  ///< full interface name, such as "example::Lamp"
  std::uint16_t id = 0;
  std::uint8_t major_version = 0;
  std::uint32_t minor_version = 0;
  std::vector<Method_deployment> methods;
  std::vector<Event_deployment> events;
  std::vector<Field_deployment> fields;
  std::vector<Instance_deployment> instances;
  /// Addresses of the consumers and providers of this service; empty allows every address.
  std::vector<boost::asio::ip::address> allowed_peers;
};

struct Node_deployment {
  std::string name;
  /// The node takes the first free address. Application nodes have one, tools several.
  std::vector<boost::asio::ip::address> addresses;
  std::uint8_t prefix_length =
      8;  ///< of the subnet: endpoints outside of it are refused; 0: no check
  std::size_t workers = 2;
  std::uint16_t client_id = 1;
  /// Port of a client's own endpoints; 0 lets the kernel choose.
  std::uint16_t client_port = 0;
  Milliseconds request_timeout{2000};
  /// If false, the link of the node's interface always counts as up.
  bool watch_link = true;
  /// True if the node accepts clients of its own machine through a Unix socket.
  bool local_socket = false;

  // The manifest does not name these.
  std::string socket_path;  ///< of that socket; empty: none
  /// Path of another node's socket, which this node uses in place of an address of its own; empty:
  /// it uses the network.
  std::string through;
  std::optional<boost::asio::ip::address> only_peer;  ///< ignores the discovery of all others
};

struct Deployment {
  std::string source;  ///< file name of the manifest, or "built-in manifest"
  std::vector<Node_deployment> nodes;
  Discovery_timing discovery;
  Limits limits;
  Segment_shaping segments;
  std::vector<Service_deployment> services;

  /// True if at least one service allows `peer`. Every other peer is a stranger to the node.
  [[nodiscard]] bool allows_peer(const boost::asio::ip::address& peer) const {
    return std::ranges::any_of(services, [&](const Service_deployment& service) {
      return allows(service.allowed_peers, peer);
    });
  }
};

}  // namespace someip
