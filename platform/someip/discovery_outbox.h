/// The way out for discovery entries: packed by destination, with the session ids of each.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <vector>

#include "platform/someip/discovery_message.h"
#include "platform/someip/discovery_types.h"
#include "platform/someip/sessions.h"

namespace someip {

/// Session counters and reboot flags of the peers, ours towards them and theirs towards us.
class Discovery_peers {
 public:
  explicit Discovery_peers(std::size_t limit) : limit_(limit) {}

  enum class Verdict { known, restarted, refused };
  /// Takes note of a message. Refused: the table is full and nobody in it has been silent for long.
  [[nodiscard]] Verdict heard(
      const Endpoint& peer, bool multicast, std::uint16_t session, bool reboot_flag, Time now);
  /// Time{} when nothing has been heard.
  [[nodiscard]] Time last_contact(const Endpoint& peer) const {
    const auto known = peers_.find(peer);
    return known == peers_.end() ? Time{} : known->second.last_contact;
  }
  /// The counter of unicast messages to `peer`.
  [[nodiscard]] Session_counter& towards(const Endpoint& peer, Time now);
  [[nodiscard]] Session_counter& towards_group() { return group_; }

 private:
  struct Peer {
    Session_counter outgoing;
    Reboot_detector unicast, multicast;
    Time last_contact{};
  };
  bool make_room(Time now);

  std::size_t limit_;
  std::map<Endpoint, Peer> peers_;
  Session_counter group_;
};

/// Entries wait here until flush(), which sends one message to each destination (someipsd_836),
/// more only when they do not fit.
class Discovery_outbox {
 public:
  /// No endpoint: the multicast group.
  using Destination = std::optional<Endpoint>;
  using Send = std::function<void(const std::vector<std::byte>& message, const Destination& to)>;

  Discovery_outbox(Discovery_peers& peers, Send send) : peers_(peers), send_(std::move(send)) {}

  /// The entries have the same options and leave side by side. An offer that waits already is not
  /// added again: it may have been asked for many times at once.
  void add(const Destination& to, std::vector<Entry> entries, std::vector<Option> options);
  void flush(Time now);

 private:
  struct Item {
    std::vector<Entry> entries;
    std::vector<Option> options;
  };
  struct Parcel {
    Destination to;
    std::vector<Item> items;
  };
  void send(const Discovery_writer& writer, const Destination& to, Time now);

  Discovery_peers& peers_;
  Send send_;
  std::vector<Parcel> parcels_;
};

}  // namespace someip
