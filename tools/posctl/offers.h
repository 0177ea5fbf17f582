/// The offers of service discovery, as a listener of the network sees them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/someip/base/deployment.h"
#include "platform/someip/discovery/discovery_message.h"
#include "platform/someip/discovery/discovery_types.h"
#include "platform/someip/net/udp_socket.h"

namespace posctl {

struct Seen_offer {
  someip::Endpoint from;  ///< the service discovery of the provider
  std::uint32_t minor_version = 0;
  std::uint32_t ttl = 0;  ///< seconds; 0: a stop offer
  std::optional<someip::Endpoint> udp, tcp;
  someip::Time expires;

  [[nodiscard]] bool same(const Seen_offer& other) const {
    return from == other.from && minor_version == other.minor_version && ttl == other.ttl &&
           udp == other.udp && tcp == other.tcp;
  }
};

using Take_offer = std::function<void(const someip::Instance_key&, const Seen_offer&)>;

/// Calls `take` for each offer and stop offer that waits in `socket`.
void read_offers(const someip::Udp_socket& socket,
                 std::size_t max_entries,
                 bool ipv4,
                 const Take_offer& take);

/// The multicast group of service discovery, joined on the interface of the first address of the
/// node that an interface has. It needs no free address of its own.
class Group_listener {
 public:
  /// Throws std::runtime_error.
  Group_listener(const someip::Deployment& deployment, const std::string& node);

  [[nodiscard]] int descriptor() const { return socket_.descriptor(); }
  void read(const Take_offer& take) const { read_offers(socket_, limit_, ipv4_, take); }

 private:
  const std::size_t limit_;
  const bool ipv4_;
  someip::Udp_socket socket_;
};

}  // namespace posctl
