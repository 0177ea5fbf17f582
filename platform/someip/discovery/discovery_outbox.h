/// Packs outgoing discovery entries by destination and counts the sessions of each destination.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "platform/someip/base/deployment.h"
#include "platform/someip/base/sessions.h"
#include "platform/someip/discovery/discovery_message.h"
#include "platform/someip/discovery/discovery_types.h"

namespace someip {

/// Session counters and reboot flags of the peers, ours towards them and theirs towards us.
class Discovery_peers {
 public:
  explicit Discovery_peers(const Limits& limits) : limits_(limits) {}

  enum class Verdict { known, restarted, refused };
  /// Records a message. If the address of a new origin has used its quota, the origin takes the
  /// place of the one of that address that has been silent longest, if for 10 s. In a full table it
  /// takes a place of the address with the most places, at once; if every address has one, again
  /// only after 10 s of silence. Refuses the origin if there is no such place.
  [[nodiscard]] Verdict heard(
      const Origin& origin, bool multicast, std::uint16_t session, bool reboot_flag, Time now);
  /// Time{} when nothing has been received.
  [[nodiscard]] Time last_contact(const Origin& origin) const;
  /// The counter of unicast messages to `peer`.
  [[nodiscard]] Session_counter& towards(const Endpoint& peer, Time now);
  [[nodiscard]] Session_counter& towards_group() { return group_; }
  /// Nothing is sent to `peer` any more.
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

/// Entries wait here until flush() sends one message to each destination (someipsd_836), more only
/// when they do not fit. Entries to one destination leave in the order in which they were added.
class Discovery_outbox {
 public:
  /// No endpoint: the multicast group.
  using Destination = std::optional<Endpoint>;
  using Send = std::function<void(const std::vector<std::byte>& message, const Destination& to)>;

  Discovery_outbox(Discovery_peers& peers, Send send) : peers_(peers), send_(std::move(send)) {}

  /// The entries have the same options and leave side by side. They leave at `due`, or earlier with
  /// others to the same destination. An offer that waits already is not added again: it may have
  /// been asked for many times at once.
  void add(const Destination& to,
           std::vector<Entry> entries,
           std::vector<Option> options,
           Time due = {});
  /// Does this offer wait already?
  [[nodiscard]] bool holds_offer(const Destination& to,
                                 const Instance_key& key,
                                 std::uint32_t ttl) const;
  /// Sends what is due.
  void flush(Time now);
  /// Sends what is due and what is not.
  void flush_all(Time now);
  void drop_all();
  [[nodiscard]] Time next_deadline() const;

 private:
  struct Item {
    std::vector<Entry> entries;
    std::vector<Option> options;
  };
  struct Parcel {
    Destination to;
    std::vector<Item> items;
    std::set<std::pair<Instance_key, std::uint32_t>> offers;  ///< among the items, with their ttl
    Time due;
  };
  void send(const Parcel& parcel, Time now);
  void send(const Discovery_writer& writer, const Destination& to, Time now);

  Discovery_peers& peers_;
  Send send_;
  std::vector<Parcel> parcels_;                   ///< in the order in which they leave
  std::map<Destination, std::size_t> parcel_of_;  ///< index in parcels_
};

}  // namespace someip
