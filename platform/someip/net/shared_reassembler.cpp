#include "platform/someip/net/shared_reassembler.h"

#include <chrono>

namespace someip {

bool Shared_reassembler::add(const Endpoint& peer,
                             const Header& header,
                             Bytes payload,
                             Counters& counters,
                             Reassembler::Message& message) {
  if (!deployment_.allows_peer(peer.address)) {
    counters.dropped_foreign_peer.add();
    return false;
  }
  const std::lock_guard lock(mutex_);
  const auto result = reassembler_.add(peer, header, payload, std::chrono::steady_clock::now());
  counters.dropped_segments.add(reassembler_.take_abandoned());
  switch (result) {
    case Reassembler::Result::incomplete:
      return false;
    case Reassembler::Result::complete:
      message = reassembler_.take();
      return true;
    case Reassembler::Result::broken:
      counters.dropped_segments.add();
      return false;
    case Reassembler::Result::refused:
      counters.refused_reassemblies.add();
      return false;
  }
  return false;
}

void Shared_reassembler::forget(const Address& peer) {
  const std::lock_guard lock(mutex_);
  reassembler_.forget(peer);
}

}  // namespace someip
