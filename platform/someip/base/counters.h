/// The counters of a node. They only grow; a reader does not see all of them at the same moment.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string_view>

namespace someip {

/// Relaxed: the counters are independent, no reader concludes from one to another.
class Counter {
 public:
  void add(std::uint64_t count = 1) { value_.fetch_add(count, std::memory_order_relaxed); }
  [[nodiscard]] std::uint64_t value() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::uint64_t> value_{0};
};

struct Counters {
  // The counters on the path of a notification share a cache line.
  alignas(64) Counter datagrams_received;
  Counter datagrams_sent, notifications_received, notifications_sent;
  Counter notifications_late, notifications_displaced;
  Counter discovery_received, discovery_sent;
  Counter requests_received, requests_sent;
  Counter responses_received, responses_sent;
  Counter segments_received, segments_sent;
  Counter tcp_accepted, tcp_connected, tcp_lost, tcp_resynchronised, local_accepted;
  Counter peer_restarts, offers_expired, subscriptions_expired, subscriptions_closed, links_lost;
  Counter subscriptions_accepted, subscriptions_refused;
  Counter calls_timed_out;
  Counter dropped_malformed, dropped_discovery_malformed, dropped_segments, dropped_unknown_service,
      dropped_unknown_method, dropped_wrong_version, dropped_wrong_type, dropped_unexpected,
      dropped_foreign_peer, dropped_entries;
  Counter refused_subscribers, refused_reassemblies, refused_message_size, refused_connections,
      refused_calls, refused_requests, refused_instances, refused_peers, refused_segmented;
  Counter slow_readers, send_would_block, send_failed;
};

struct Counter_name {
  std::string_view name;
  Counter Counters::*counter;
};

inline constexpr std::array counter_names = {
    Counter_name{"datagramsReceived", &Counters::datagrams_received},
    Counter_name{"datagramsSent", &Counters::datagrams_sent},
    Counter_name{"discoveryReceived", &Counters::discovery_received},
    Counter_name{"discoverySent", &Counters::discovery_sent},
    Counter_name{"notificationsReceived", &Counters::notifications_received},
    Counter_name{"notificationsLate", &Counters::notifications_late},
    Counter_name{"notificationsDisplaced", &Counters::notifications_displaced},
    Counter_name{"notificationsSent", &Counters::notifications_sent},
    Counter_name{"requestsReceived", &Counters::requests_received},
    Counter_name{"requestsSent", &Counters::requests_sent},
    Counter_name{"responsesReceived", &Counters::responses_received},
    Counter_name{"responsesSent", &Counters::responses_sent},
    Counter_name{"segmentsReceived", &Counters::segments_received},
    Counter_name{"segmentsSent", &Counters::segments_sent},
    Counter_name{"tcpAccepted", &Counters::tcp_accepted},
    Counter_name{"tcpConnected", &Counters::tcp_connected},
    Counter_name{"tcpLost", &Counters::tcp_lost},
    Counter_name{"tcpResynchronised", &Counters::tcp_resynchronised},
    Counter_name{"localAccepted", &Counters::local_accepted},
    Counter_name{"peerRestarts", &Counters::peer_restarts},
    Counter_name{"offersExpired", &Counters::offers_expired},
    Counter_name{"subscriptionsExpired", &Counters::subscriptions_expired},
    Counter_name{"subscriptionsClosed", &Counters::subscriptions_closed},
    Counter_name{"linksLost", &Counters::links_lost},
    Counter_name{"subscriptionsAccepted", &Counters::subscriptions_accepted},
    Counter_name{"subscriptionsRefused", &Counters::subscriptions_refused},
    Counter_name{"callsTimedOut", &Counters::calls_timed_out},
    Counter_name{"droppedMalformed", &Counters::dropped_malformed},
    Counter_name{"droppedDiscoveryMalformed", &Counters::dropped_discovery_malformed},
    Counter_name{"droppedSegments", &Counters::dropped_segments},
    Counter_name{"droppedUnknownService", &Counters::dropped_unknown_service},
    Counter_name{"droppedUnknownMethod", &Counters::dropped_unknown_method},
    Counter_name{"droppedWrongVersion", &Counters::dropped_wrong_version},
    Counter_name{"droppedWrongType", &Counters::dropped_wrong_type},
    Counter_name{"droppedUnexpected", &Counters::dropped_unexpected},
    Counter_name{"droppedForeignPeer", &Counters::dropped_foreign_peer},
    Counter_name{"droppedEntries", &Counters::dropped_entries},
    Counter_name{"refusedSubscribers", &Counters::refused_subscribers},
    Counter_name{"refusedReassemblies", &Counters::refused_reassemblies},
    Counter_name{"refusedMessageSize", &Counters::refused_message_size},
    Counter_name{"refusedConnections", &Counters::refused_connections},
    Counter_name{"refusedCalls", &Counters::refused_calls},
    Counter_name{"refusedRequests", &Counters::refused_requests},
    Counter_name{"refusedInstances", &Counters::refused_instances},
    Counter_name{"refusedPeers", &Counters::refused_peers},
    Counter_name{"refusedSegmented", &Counters::refused_segmented},
    Counter_name{"slowReaders", &Counters::slow_readers},
    Counter_name{"sendWouldBlock", &Counters::send_would_block},
    Counter_name{"sendFailed", &Counters::send_failed},
};

}  // namespace someip
