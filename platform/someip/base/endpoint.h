/// An address and a port, as in the options of service discovery.
#pragma once

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace someip {

using Address = boost::asio::ip::address;

struct Endpoint {
  Address address;
  std::uint16_t port = 0;

  friend bool operator==(const Endpoint& a, const Endpoint& b) {
    return a.port == b.port && a.address == b.address;
  }
  friend bool operator<(const Endpoint& a, const Endpoint& b) {
    return std::tie(a.address, a.port) < std::tie(b.address, b.port);
  }
};

struct Endpoint_hash {
  std::size_t operator()(const Endpoint& endpoint) const {
    if (endpoint.address.is_v4()) {
      return std::hash<std::uint64_t>{}((std::uint64_t{endpoint.address.to_v4().to_uint()} << 16U) |
                                        endpoint.port);
    }
    const auto bytes = endpoint.address.to_v6().to_bytes();
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return std::hash<std::string_view>{}(text) ^ endpoint.port;
  }
};

/// The address under which a node knows the other end of a Unix socket; `number` is from 1 to
/// 0xFFFFFF. It is in 0.0.0.0/8, or for IPv6 in the same part of the mapped addresses. The kernel
/// accepts no datagram and no connection from there.
[[nodiscard]] Address local_address(std::uint32_t number, bool v4);
[[nodiscard]] bool is_local_address(const Address& address);

[[nodiscard]] inline std::string to_string(const Endpoint& endpoint) {
  if (is_local_address(endpoint.address)) return "the Unix socket";
  const std::string address = endpoint.address.to_string();
  return (endpoint.address.is_v6() ? "[" + address + "]" : address) + ":" +
         std::to_string(endpoint.port);
}

/// True if `address` can be a peer on our link: unicast, specified, in the subnet of `own`, not
/// local. A prefix length of 0 turns the subnet check off (someipsd_1149).
[[nodiscard]] bool reachable_peer(const Address& address,
                                  const Address& own,
                                  unsigned prefix_length);

/// True if a service's list of peers allows `address`. An empty list allows every address. The mode
/// of the Unix socket decides about local addresses, not the list.
[[nodiscard]] inline bool allows(const std::vector<Address>& list, const Address& address) {
  return list.empty() || std::ranges::find(list, address) != list.end() ||
         is_local_address(address);
}

}  // namespace someip
