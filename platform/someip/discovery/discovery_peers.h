/// The sessions of service discovery: this node's towards each peer, and each peer's towards it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "platform/someip/base/deployment.h"
#include "platform/someip/base/endpoint.h"
#include "platform/someip/base/sessions.h"
#include "platform/someip/base/time.h"
#include "platform/someip/discovery/discovery_types.h"

namespace someip {

/// Session counters and reboot flags of the peers, ours towards them and theirs towards us.
class Discovery_peers {
 public:
  explicit Discovery_peers(const Limits& limits) : limits_(limits) {}

  enum class Verdict { known, restarted, refused };
  /// Records a message. A new origin needs a place:
  ///   If its address has used its quota, the origin replaces the longest silent origin of this
  ///   address, which must have been silent for 10 s.
  ///   If the table is full, it replaces an origin of the address with the most places. If every
  ///   address has one place, the replaced origin must have been silent for 10 s.
  /// Refuses the origin if there is no such place.
  [[nodiscard]] Verdict received(
      const Origin& origin, bool multicast, std::uint16_t session, bool reboot_flag, Time now);
  /// Time{} when nothing has been received.
  [[nodiscard]] Time last_contact(const Origin& origin) const;
  /// The counter of unicast messages to `peer`.
  [[nodiscard]] Session_counter& towards(const Endpoint& peer, Time now);
  [[nodiscard]] Session_counter& towards_group() { return group_; }
  /// No message to `peer` follows.
  void forget(const Endpoint& peer) { outgoing_.erase(peer); }

 private:
  /// The sessions of one address that speaks for one service discovery endpoint.
  struct Channel {
    Endpoint peer;
    Reboot_detector unicast, multicast;
    Time last_contact{};
  };
  using Channels = std::vector<Channel>;
  struct Outgoing {
    Session_counter counter;
    Time last_use{};
  };

  [[nodiscard]] static Channels::iterator oldest(Channels& channels);
  bool make_room(Time now);

  const Limits& limits_;
  std::map<Address, Channels> senders_;
  std::size_t channels_ = 0;  ///< of all senders
  std::map<Endpoint, Outgoing> outgoing_;
  /// Where the counter of a new destination begins. A forgotten destination that comes back must
  /// not see sessions that go backwards: it would take that for our restart.
  Session_counter forgotten_;
  Session_counter group_;
};

}  // namespace someip
