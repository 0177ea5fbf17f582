/// SOME/IP-TP, receiving: a train of segments becomes one message again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "platform/someip/base/deployment.h"
#include "platform/someip/base/endpoint.h"
#include "platform/someip/base/time.h"
#include "platform/someip/wire/message.h"

namespace someip {

/// Reassembles trains of segments. Segments must arrive in order. A gap, an overlap or a changed
/// header drops the whole train. A train of a later session of the same sender and message replaces
/// an unfinished one. A train that stands still is dropped after a while, even if its rest finally
/// arrives. Not thread-safe.
class Reassembler {
 public:
  explicit Reassembler(const Limits& limits) : limits_(limits) {}

  enum class Result : std::uint8_t {
    incomplete,  ///< accepted, more to come
    complete,    ///< take() gives the message
    broken,      ///< dropped, together with its train
    refused,     ///< dropped: a bound was reached
  };

  /// `header` and `payload` are those of the segment. The payload begins with the segment header.
  [[nodiscard]] Result add(const Endpoint& peer, const Header& header, Bytes payload, Time now);

  struct Message {
    Header header;  ///< of the original message: without segment flag, with its length
    std::vector<std::byte> payload;
  };
  /// The message that the last add() completed.
  [[nodiscard]] Message take() { return std::move(complete_); }

  /// Drops the trains of a peer that has rebooted.
  void forget(const Address& peer);
  [[nodiscard]] std::size_t trains() const { return trains_.size(); }
  /// The number of trains dropped since the last call, because they stood still or were replaced.
  [[nodiscard]] std::size_t take_abandoned();

 private:
  struct Key {
    Endpoint peer;
    std::uint16_t service, method, client;
    bool operator<(const Key& other) const;
  };
  struct Train {
    Header first;
    std::vector<std::byte> payload;
    Time last_progress;
  };

  void drop_stale(Time now);
  [[nodiscard]] bool room_for(const Endpoint& peer) const;

  Limits limits_;
  std::map<Key, Train> trains_;
  Message complete_;
  std::size_t abandoned_ = 0;
};

}  // namespace someip
