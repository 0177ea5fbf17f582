#include "platform/someip/wire/reassembler.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "platform/someip/wire/segmentation.h"

namespace someip {

namespace {

/// All segments of a train agree in everything but the length.
bool same_train(Header a, Header b) {
  a.length = b.length = 0;
  return a == b;
}

}  // namespace

bool Reassembler::Key::operator<(const Key& other) const {
  return std::tie(service, method, client, peer) <
         std::tie(other.service, other.method, other.client, other.peer);
}

void Reassembler::drop_stale(Time now) {
  abandoned_ += std::erase_if(trains_, [&](const auto& entry) {
    return now - entry.second.last_progress > limits_.reassembly_timeout;
  });
}

bool Reassembler::room_for(const Endpoint& peer) const {
  if (trains_.size() >= limits_.reassemblies) return false;
  const auto of_peer = std::ranges::count_if(
      trains_, [&](const auto& entry) { return entry.first.peer.address == peer.address; });
  return static_cast<std::size_t>(of_peer) < limits_.reassemblies_per_peer;
}

Reassembler::Result Reassembler::add(const Endpoint& peer,
                                     const Header& header,
                                     Bytes payload,
                                     Time now) {
  drop_stale(now);
  const Key key{peer, header.service, header.method, header.client};
  auto train = trains_.find(key);
  const bool continues = train != trains_.end() && train->second.first.session == header.session;
  const auto broken = [&] {
    if (continues) trains_.erase(train);
    return Result::broken;
  };

  if (payload.size() <= segment_header_size) return broken();
  const std::uint32_t word = load32(payload.data());
  const std::size_t offset = word & ~std::uint32_t{0xF};
  const bool more = (word & 1) != 0;
  const Bytes part = payload.subspan(segment_header_size);
  if (more && part.size() % 16 != 0) return broken();

  if (continues) {
    if (offset != train->second.payload.size() || !same_train(train->second.first, header)) {
      return broken();
    }
  } else {
    if (offset != 0) return Result::broken;  // the beginning was lost
    if (train != trains_.end()) {
      trains_.erase(train);
      ++abandoned_;
    }
    if (!room_for(peer)) return Result::refused;
    train = trains_.emplace(key, Train{header, {}, now}).first;
  }

  auto& collected = train->second.payload;
  if (header_size + collected.size() + part.size() > limits_.message_bytes) {
    trains_.erase(train);
    return Result::refused;
  }
  collected.insert(collected.end(), part.begin(), part.end());
  train->second.last_progress = now;
  if (more) return Result::incomplete;

  complete_.header = header;
  complete_.header.type = static_cast<std::uint8_t>(header.type & ~segment_flag);
  complete_.header.length = static_cast<std::uint32_t>(length_before_payload + collected.size());
  complete_.payload = std::move(collected);
  trains_.erase(train);
  return Result::complete;
}

void Reassembler::forget(const Address& peer) {
  abandoned_ +=
      std::erase_if(trains_, [&](const auto& entry) { return entry.first.peer.address == peer; });
}

std::size_t Reassembler::take_abandoned() {
  return std::exchange(abandoned_, 0);
}

}  // namespace someip
