/// Packs outgoing discovery entries by destination.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "platform/someip/base/time.h"
#include "platform/someip/discovery/discovery_message.h"
#include "platform/someip/discovery/discovery_peers.h"
#include "platform/someip/discovery/discovery_types.h"

namespace someip {

/// Entries wait here until flush() sends one message to each destination (someipsd_836), more only
/// when they do not fit. Entries to one destination leave in the order in which they were added.
class Discovery_outbox {
 public:
  /// No endpoint: the multicast group.
  using Destination = std::optional<Endpoint>;
  using Send = std::function<void(const std::vector<std::byte>& message, const Destination& to)>;

  Discovery_outbox(Discovery_peers& peers, Send send) : peers_(peers), send_(std::move(send)) {}

  /// The entries have the same options and leave side by side. They leave at `due`, or earlier with
  /// others to the same destination. An offer that waits already is not added again: many finds
  /// at once may ask for it.
  void add(const Destination& to,
           std::vector<Entry> entries,
           std::vector<Option> options,
           Time due = {});
  /// True if this offer waits already.
  [[nodiscard]] bool holds_offer(const Destination& to,
                                 const Instance_key& key,
                                 std::uint32_t ttl) const;
  /// Sends the entries that are due.
  void flush(Time now);
  /// Sends every entry.
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
