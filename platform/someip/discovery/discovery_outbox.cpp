#include "platform/someip/discovery/discovery_outbox.h"

#include <algorithm>
#include <utility>

namespace someip {

namespace {
/// An origin that has said nothing for this long gives way to a newcomer that needs its place.
constexpr std::chrono::seconds silence_to_forget{10};
}  // namespace

Discovery_peers::Channels::iterator Discovery_peers::oldest(Channels& channels) {
  return std::ranges::min_element(channels, {}, &Channel::last_contact);
}

bool Discovery_peers::make_room(Time now) {
  if (channels_ < limits_.discovery_peers) return true;
  // An address with several places gives way before those that have one each.
  auto victim = senders_.end();
  for (auto at = senders_.begin(); at != senders_.end(); ++at) {
    const auto rank = [](Channels& channels) {
      return std::pair(channels.size(), -oldest(channels)->last_contact.time_since_epoch());
    };
    if (victim == senders_.end() || rank(at->second) > rank(victim->second)) victim = at;
  }
  if (victim == senders_.end()) return false;
  Channels& channels = victim->second;
  const auto longest_silent = oldest(channels);
  if (channels.size() == 1 && now - longest_silent->last_contact < silence_to_forget) return false;
  channels.erase(longest_silent);
  if (channels.empty()) senders_.erase(victim);
  --channels_;
  return true;
}

Discovery_peers::Verdict Discovery_peers::heard(
    const Origin& origin, bool multicast, std::uint16_t session, bool reboot_flag, Time now) {
  auto sender = senders_.find(origin.sender);
  Channel* channel = nullptr;
  if (sender != senders_.end()) {
    Channels& channels = sender->second;
    auto own = std::ranges::find(channels, origin.peer, &Channel::peer);
    if (own == channels.end() && channels.size() >= limits_.discovery_peers_per_address) {
      own = oldest(channels);
      if (now - own->last_contact < silence_to_forget) return Verdict::refused;
      *own = Channel{origin.peer, {}, {}, {}};
    }
    if (own != channels.end()) channel = &*own;
  }
  if (channel == nullptr) {
    if (!make_room(now)) return Verdict::refused;
    channel = &senders_[origin.sender].emplace_back(Channel{origin.peer, {}, {}, {}});
    ++channels_;
  }
  channel->last_contact = now;
  if (!(multicast ? channel->multicast : channel->unicast).restarted(session, reboot_flag)) {
    return Verdict::known;
  }
  (multicast ? channel->unicast : channel->multicast).reset();
  return Verdict::restarted;
}

Time Discovery_peers::last_contact(const Origin& origin) const {
  const auto sender = senders_.find(origin.sender);
  if (sender == senders_.end()) return {};
  const auto channel = std::ranges::find(sender->second, origin.peer, &Channel::peer);
  return channel == sender->second.end() ? Time{} : channel->last_contact;
}

Session_counter& Discovery_peers::towards(const Endpoint& peer, Time now) {
  auto known = outgoing_.find(peer);
  if (known == outgoing_.end()) {
    if (outgoing_.size() >= limits_.discovery_peers) {
      const auto unused = std::ranges::min_element(
          outgoing_, {}, [](const auto& entry) { return entry.second.last_use; });
      forgotten_.advance_to(unused->second.counter);
      outgoing_.erase(unused);
    }
    known = outgoing_.emplace(peer, Outgoing{forgotten_, {}}).first;
  }
  known->second.last_use = now;
  return known->second.counter;
}

void Discovery_outbox::add(const Destination& to,
                           std::vector<Entry> entries,
                           std::vector<Option> options,
                           Time due) {
  const auto [known, added] = parcel_of_.emplace(to, parcels_.size());
  if (added) parcels_.push_back({to, {}, {}, due});
  Parcel& parcel = parcels_[known->second];
  parcel.due = std::min(parcel.due, due);
  const Entry& first = entries.front();
  if (first.type == Entry_type::offer_service &&
      !parcel.offers.insert({{first.service, first.instance, first.major_version}, first.ttl})
           .second) {
    return;
  }
  parcel.items.push_back({std::move(entries), std::move(options)});
}

bool Discovery_outbox::holds_offer(const Destination& to,
                                   const Instance_key& key,
                                   std::uint32_t ttl) const {
  const auto known = parcel_of_.find(to);
  return known != parcel_of_.end() && parcels_[known->second].offers.contains({key, ttl});
}

void Discovery_outbox::flush(Time now) {
  parcel_of_.clear();
  for (Parcel& parcel : std::exchange(parcels_, {})) {
    if (parcel.due <= now) {
      send(parcel, now);
    } else {
      parcel_of_.emplace(parcel.to, parcels_.size());
      parcels_.push_back(std::move(parcel));
    }
  }
}

void Discovery_outbox::flush_all(Time now) {
  for (const Parcel& parcel : parcels_)
    send(parcel, now);
  drop_all();
}

void Discovery_outbox::drop_all() {
  parcels_.clear();
  parcel_of_.clear();
}

Time Discovery_outbox::next_deadline() const {
  Time next = Time::max();
  for (const Parcel& parcel : parcels_)
    next = std::min(next, parcel.due);
  return next;
}

void Discovery_outbox::send(const Parcel& parcel, Time now) {
  Discovery_writer writer;
  for (const Item& item : parcel.items) {
    if (writer.add_all(item.entries, item.options)) continue;
    send(std::exchange(writer, Discovery_writer{}), parcel.to, now);
    static_cast<void>(writer.add_all(item.entries, item.options));
  }
  send(writer, parcel.to, now);
}

void Discovery_outbox::send(const Discovery_writer& writer, const Destination& to, Time now) {
  Session_counter& counter = to ? peers_.towards(*to, now) : peers_.towards_group();
  const std::uint16_t session = counter.next();
  send_(writer.message(session, counter.reboot_flag()), to);
}

}  // namespace someip
