#include "platform/someip/discovery/discovery_peers.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace someip {

namespace {
/// An origin that has been silent for this long gives way to a newcomer that needs its place.
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

Discovery_peers::Verdict Discovery_peers::received(
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

}  // namespace someip
