/// The numbers of the deployment manifest, each described once: its key, its member and its range.
/// The parser reads by these tables, `posctl describe` prints by them.
#pragma once

#include <cstdint>
#include <tuple>
#include <type_traits>

#include "platform/someip/base/deployment.h"

namespace tq::com {

template <class Section, class Value>
struct Manifest_key {
  const char* name;
  Value Section::*member;
  std::uint64_t low;
  std::uint64_t high;

  void set(Section& section, std::uint64_t number) const {
    if constexpr (std::is_integral_v<Value>) {
      section.*member = static_cast<Value>(number);
    } else {
      section.*member = Value(static_cast<typename Value::rep>(number));
    }
  }
  [[nodiscard]] std::uint64_t get(const Section& section) const {
    if constexpr (std::is_integral_v<Value>) {
      return section.*member;
    } else {
      return static_cast<std::uint64_t>((section.*member).count());
    }
  }
};
template <class Section, class Value>
Manifest_key(const char*, Value Section::*, std::uint64_t, std::uint64_t)
    -> Manifest_key<Section, Value>;

inline constexpr std::uint64_t longest_milliseconds = 3'600'000;
inline constexpr std::uint64_t many = 1'000'000;
inline constexpr std::uint64_t most_bytes = std::uint64_t{1} << 30U;

constexpr auto manifest_keys(const someip::Node_deployment* /*section*/) {
  using Node = someip::Node_deployment;
  return std::tuple{
      Manifest_key{"workers", &Node::workers, 1, 64},
      Manifest_key{"clientId", &Node::client_id, 0, 0xFFFF},
      Manifest_key{"clientPort", &Node::client_port, 0, 0xFFFF},
      Manifest_key{"requestTimeoutMs", &Node::request_timeout, 0, longest_milliseconds},
  };
}

constexpr auto manifest_keys(const someip::Discovery_timing* /*section*/) {
  using Timing = someip::Discovery_timing;
  constexpr auto longest = longest_milliseconds;
  return std::tuple{
      Manifest_key{"port", &Timing::port, 1, 0xFFFF},
      Manifest_key{"initialDelayMinMs", &Timing::initial_delay_min, 0, longest},
      Manifest_key{"initialDelayMaxMs", &Timing::initial_delay_max, 0, longest},
      Manifest_key{"repetitionsBaseDelayMs", &Timing::repetitions_base_delay, 0, longest},
      Manifest_key{"repetitionsMax", &Timing::repetitions_max, 0, 10},
      Manifest_key{"cyclicOfferDelayMs", &Timing::cyclic_offer_delay, 0, longest},
      Manifest_key{"requestResponseDelayMinMs", &Timing::request_response_delay_min, 0, longest},
      Manifest_key{"requestResponseDelayMaxMs", &Timing::request_response_delay_max, 0, longest},
      Manifest_key{"offerTtlS", &Timing::offer_ttl, 1, 0xFFFFFF},
      Manifest_key{"subscribeTtlS", &Timing::subscribe_ttl, 1, 0xFFFFFF},
      Manifest_key{"longestOfferTtlS", &Timing::longest_offer_ttl, 1, 0xFFFFFF},
      Manifest_key{"longestSubscribeTtlS", &Timing::longest_subscribe_ttl, 1, 0xFFFFFF},
  };
}

constexpr auto manifest_keys(const someip::Limits* /*section*/) {
  using someip::Limits;
  return std::tuple{
      Manifest_key{"subscribersPerEventGroup", &Limits::subscribers_per_event_group, 1, many},
      Manifest_key{"subscribersPerAddress", &Limits::subscribers_per_address, 1, many},
      Manifest_key{"reassemblies", &Limits::reassemblies, 1, many},
      Manifest_key{"reassembliesPerPeer", &Limits::reassemblies_per_peer, 1, many},
      Manifest_key{"reassemblyTimeoutMs", &Limits::reassembly_timeout, 0, longest_milliseconds},
      Manifest_key{"messageBytes", &Limits::message_bytes, 1500, most_bytes},
      Manifest_key{"tcpConnections", &Limits::tcp_connections, 1, many},
      Manifest_key{"tcpConnectionsPerAddress", &Limits::tcp_connections_per_address, 1, many},
      Manifest_key{"localConnections", &Limits::local_connections, 1, many},
      Manifest_key{"tcpSendQueueBytes", &Limits::tcp_send_queue_bytes, 1500, most_bytes},
      Manifest_key{"pendingCalls", &Limits::pending_calls, 1, 0xFFFE},
      Manifest_key{"entriesPerDiscoveryMessage", &Limits::entries_per_discovery_message, 1, 4096},
      Manifest_key{"remoteInstances", &Limits::remote_instances, 1, many},
      Manifest_key{"remoteInstancesPerAddress", &Limits::remote_instances_per_address, 1, many},
      Manifest_key{"discoveryPeers", &Limits::discovery_peers, 1, many},
      Manifest_key{"discoveryPeersPerAddress", &Limits::discovery_peers_per_address, 1, many},
      Manifest_key{"queuedRequests", &Limits::queued_requests, 1, many},
      Manifest_key{"queuedRequestBytes", &Limits::queued_request_bytes, 1500, most_bytes},
      Manifest_key{"queuedNotifications", &Limits::queued_notifications, 1, many},
      Manifest_key{"queuedNotificationBytes", &Limits::queued_notification_bytes, 1500, most_bytes},
      Manifest_key{"queuedSegmentBytes", &Limits::queued_segment_bytes, 1500, most_bytes},
  };
}

constexpr auto manifest_keys(const someip::Segment_shaping* /*section*/) {
  using someip::Segment_shaping;
  return std::tuple{
      Manifest_key{"burst", &Segment_shaping::burst, 1, 10'000},
      Manifest_key{"pauseUs", &Segment_shaping::pause, 0, 1'000'000},
  };
}

/// Calls `use(key)` for each number of a section.
template <class Section, class Use>
void for_each_manifest_key(Use use) {
  std::apply([&](const auto&... keys) { (use(keys), ...); },
             manifest_keys(static_cast<const Section*>(nullptr)));
}

}  // namespace tq::com
