/// Reassembly of segmented messages for all UDP ports of a node.
#pragma once

#include <mutex>

#include "platform/someip/base/counters.h"
#include "platform/someip/base/deployment.h"
#include "platform/someip/wire/reassembler.h"

namespace someip {

/// A Reassembler behind a lock, so that its bounds hold over all ports. Thread-safe.
class Shared_reassembler {
 public:
  /// `deployment` outlives this object.
  explicit Shared_reassembler(const Deployment& deployment)
      : deployment_(deployment), reassembler_(deployment.limits) {}

  /// Adds a segment, given by its header and payload. Returns true if that completes a message, and
  /// stores it in `message`. Drops the segments of a peer that no service allows: its trains would
  /// take the room of others. Counts dropped segments and refused reassemblies.
  [[nodiscard]] bool add(const Endpoint& peer,
                         const Header& header,
                         Bytes payload,
                         Counters& counters,
                         Reassembler::Message& message);
  /// Drops the trains of a peer that has rebooted.
  void forget(const Address& peer);

 private:
  const Deployment& deployment_;
  std::mutex mutex_;  ///< guards reassembler_
  Reassembler reassembler_;
};

}  // namespace someip
