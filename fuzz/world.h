/// The little network in which the discovery and node targets live: one node of ours, some peers,
/// and messages that look like theirs.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "fuzz/input.h"
#include "platform/someip/base/deployment.h"
#include "platform/someip/base/endpoint.h"
#include "platform/someip/wire/message.h"

namespace fuzz {

inline constexpr std::uint16_t provided_service = 0x1111;
inline constexpr std::uint16_t used_service = 0x2222;
/// Only the first peer may use it.
inline constexpr std::uint16_t private_service = 0x4444;
/// Used over TCP, and only the first peer may provide it.
inline constexpr std::uint16_t guarded_service = 0x3333;

/// With bounds so small that an input reaches them. Two variants: with all delays of discovery, and
/// without any.
[[nodiscard]] const someip::Deployment& deployment(bool delays);

[[nodiscard]] inline someip::Address address(std::uint32_t bits) {
  return boost::asio::ip::address_v4(bits);
}
inline constexpr std::uint32_t own_address = 0x7F4D0101;  ///< 127.77.1.1
inline constexpr std::size_t peer_count = 6;              ///< from 127.77.1.2 on

/// What an attacker would write where an address is expected.
[[nodiscard]] someip::Endpoint any_endpoint(Input& input);
/// The service discovery of a peer.
[[nodiscard]] someip::Endpoint any_peer(Input& input);

/// Messages of service discovery of all peers, with the session ids that each has reached.
class Discovery_source {
 public:
  /// A whole SOME/IP message from `peer`: mostly well-formed, with entries and options of all
  /// kinds.
  [[nodiscard]] std::vector<std::byte> message(Input& input,
                                               const someip::Endpoint& peer,
                                               bool multicast);

 private:
  std::map<std::pair<someip::Endpoint, bool>, std::uint16_t> sessions_;
};

/// A SOME/IP message other than discovery: a request, a response, a notification or a segment.
[[nodiscard]] std::vector<std::byte> any_message(Input& input);

}  // namespace fuzz
