/// Types shared by both sides of service discovery and their node.
#pragma once

#include <algorithm>
#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/someip/base/deployment.h"
#include "platform/someip/base/endpoint.h"
#include "platform/someip/base/time.h"
#include "platform/someip/discovery/discovery_message.h"

namespace someip {

/// An instance of a service, in the version that its interface has.
struct Instance_key {
  std::uint16_t service = 0;
  std::uint16_t instance = 0;
  std::uint8_t major_version = 0;
  // NOLINTNEXTLINE(modernize-use-nullptr): the check takes the comparison for a null pointer
  friend auto operator<=>(const Instance_key&, const Instance_key&) = default;
};

[[nodiscard]] inline Instance_key key_of(const Entry& entry) {
  return {entry.service, entry.instance, entry.major_version};
}

/// True if a search for `wanted`, whose instance may be any_instance, wants this one.
[[nodiscard]] inline bool matches(const Instance_key& wanted, const Instance_key& key) {
  return wanted.service == key.service && wanted.major_version == key.major_version &&
         (wanted.instance == any_instance || wanted.instance == key.instance);
}

/// Where an instance is reachable: at least one of the two.
struct Instance_endpoints {
  std::optional<Endpoint> udp;
  std::optional<Endpoint> tcp;

  /// True if `predicate` holds for each of the endpoints.
  template <class Predicate>
  [[nodiscard]] bool all(Predicate predicate) const {
    return (!udp || predicate(*udp)) && (!tcp || predicate(*tcp));
  }
  friend bool operator==(const Instance_endpoints&, const Instance_endpoints&) = default;
};

/// The origin of a discovery message. The effects of the message belong to both members: whatever
/// discovery endpoint an address names, it cannot end, renew or restart the entries of another one.
struct Origin {
  Address sender;  ///< of the datagram
  /// The service discovery that gets the answers: the sender's own unless the message names another
  /// one (someipsd_1084).
  Endpoint peer;

  /// True for the other end of a Unix socket.
  [[nodiscard]] bool local() const { return is_local_address(sender); }
  /// True if the sender speaks for itself.
  [[nodiscard]] bool direct() const { return sender == peer.address; }
  /// True if it may renew or end the entries of `other`. An address outranks the origins that spoke
  /// in its name.
  [[nodiscard]] bool speaks_for(const Origin& other) const {
    return peer == other.peer && (sender == other.sender || direct());
  }
  friend bool operator==(const Origin&, const Origin&) = default;
};

[[nodiscard]] inline bool allows(const std::vector<Address>& list, const Origin& origin) {
  return allows(list, origin.sender) && allows(list, origin.peer.address);
}
/// True if the list allows the origin and the address of each endpoint.
[[nodiscard]] inline bool allows(const std::vector<Address>& list,
                                 const Origin& origin,
                                 const Instance_endpoints& endpoints) {
  return allows(list, origin) &&
         endpoints.all([&](const Endpoint& one) { return allows(list, one.address); });
}

/// How the events of a group travel.
struct Group_transport {
  bool udp = false;
  bool tcp = false;
  std::optional<Endpoint> multicast;
  std::uint32_t multicast_threshold = 0;  ///< subscribers from which on multicast is used; 0: never
};

/// A client's entry in an event group.
struct Subscriber {
  Origin origin;
  Instance_endpoints endpoints;
  std::uint8_t counter = 0;
  friend bool operator==(const Subscriber&, const Subscriber&) = default;
};

/// The end of an entry with this time to live, of which at most `longest` seconds count.
[[nodiscard]] inline Time end_of_life(Time now, std::uint32_t ttl_seconds, std::uint32_t longest) {
  const std::uint32_t accepted = std::min(ttl_seconds, longest);
  return accepted == endless_ttl ? Time::max() : now + std::chrono::seconds(accepted);
}

}  // namespace someip
