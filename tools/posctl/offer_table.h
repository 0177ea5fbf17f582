/// The offers of service discovery, as a listener of the network sees them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/someip/base/deployment.h"
#include "platform/someip/discovery/discovery_message.h"
#include "platform/someip/discovery/discovery_types.h"
#include "platform/someip/net/udp_socket.h"
#include "tools/posctl/record_json.h"

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

/// Calls `take` for each offer and stop offer that waits in `socket`. Under a flood it returns
/// after 32 datagrams or some hundred offers, so that the caller goes on with its other work. The
/// kernel drops the datagrams that its buffer cannot hold.
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

/// The offers in force, from the messages that a listener has received.
class Offer_table {
 public:
  struct Key {
    someip::Instance_key instance;
    someip::Endpoint from;
    friend bool operator<(const Key& a, const Key& b) {
      return a.instance != b.instance ? a.instance < b.instance : a.from < b.from;
    }
  };
  /// `event` is "offered", "changed", "withdrawn" or "expired". The table then
  /// has the new entry; after "withdrawn" and "expired" it has none.
  using Tell = std::function<void(const char* event, const Key&, const Seen_offer&)>;

  /// `deployment` outlives the table. It keeps at most `most` offers, because a peer controls their
  /// number.
  Offer_table(const someip::Deployment& deployment, std::size_t most, Tell tell)
      : deployment_(deployment), most_(most), tell_(std::move(tell)) {}

  void take(const someip::Instance_key& key, const Seen_offer& offer);
  void expire(someip::Time now);
  [[nodiscard]] const std::map<Key, Seen_offer>& offers() const { return offers_; }

  /// The service of the manifest, whatever its version; null if the manifest does not have it.
  [[nodiscard]] const someip::Service_deployment* service_of(const Key& key) const;
  [[nodiscard]] Json json_of(const Key& key, const Seen_offer& offer) const;
  /// {"schema": 1, "offers": […]}.
  [[nodiscard]] Json json() const;

 private:
  const someip::Deployment& deployment_;
  const std::size_t most_;
  const Tell tell_;
  std::map<Key, Seen_offer> offers_;
};

}  // namespace posctl
