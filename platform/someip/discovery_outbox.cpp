#include "platform/someip/discovery_outbox.h"

#include <algorithm>
#include <utility>

namespace someip {

namespace {
/// A peer that has said nothing for so long may be forgotten when another one needs its place.
constexpr std::chrono::seconds silence_to_forget{60};
}  // namespace

bool Discovery_peers::make_room(Time now) {
  if (peers_.size() < limit_) return true;
  const auto oldest = std::ranges::min_element(
      peers_, {}, [](const auto& entry) { return entry.second.last_contact; });
  if (oldest == peers_.end() || now - oldest->second.last_contact < silence_to_forget) return false;
  peers_.erase(oldest);
  return true;
}

Discovery_peers::Verdict Discovery_peers::heard(
    const Endpoint& peer, bool multicast, std::uint16_t session, bool reboot_flag, Time now) {
  auto found = peers_.find(peer);
  if (found == peers_.end()) {
    if (!make_room(now)) return Verdict::refused;
    found = peers_.emplace(peer, Peer{}).first;
  }
  Peer& known = found->second;
  known.last_contact = now;
  if (!(multicast ? known.multicast : known.unicast).restarted(session, reboot_flag)) {
    return Verdict::known;
  }
  (multicast ? known.unicast : known.multicast).reset();
  return Verdict::restarted;
}

Session_counter& Discovery_peers::towards(const Endpoint& peer, Time now) {
  Peer& known = peers_[peer];
  if (known.last_contact == Time{}) known.last_contact = now;
  return known.outgoing;
}

void Discovery_outbox::add(const Destination& to,
                           std::vector<Entry> entries,
                           std::vector<Option> options) {
  auto parcel = std::ranges::find_if(parcels_, [&](const Parcel& known) { return known.to == to; });
  if (parcel == parcels_.end()) parcel = parcels_.insert(parcels_.end(), Parcel{to, {}});
  const bool offer = entries.front().type == Entry_type::offer_service;
  if (offer && std::ranges::find(parcel->items, entries, &Item::entries) != parcel->items.end())
    return;
  parcel->items.push_back({std::move(entries), std::move(options)});
}

void Discovery_outbox::flush(Time now) {
  for (const Parcel& parcel : std::exchange(parcels_, {})) {
    Discovery_writer writer;
    for (const Item& item : parcel.items) {
      if (writer.add_all(item.entries, item.options)) continue;
      send(std::exchange(writer, Discovery_writer{}), parcel.to, now);
      static_cast<void>(writer.add_all(item.entries, item.options));
    }
    send(writer, parcel.to, now);
  }
}

void Discovery_outbox::send(const Discovery_writer& writer, const Destination& to, Time now) {
  Session_counter& counter = to ? peers_.towards(*to, now) : peers_.towards_group();
  const std::uint16_t session = counter.next();
  send_(writer.message(session, counter.reboot_flag()), to);
}

}  // namespace someip
