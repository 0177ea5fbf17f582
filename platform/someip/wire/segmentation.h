/// SOME/IP-TP: messages too long for one datagram travel as a train of segments.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "platform/someip/base/deployment.h"
#include "platform/someip/base/endpoint.h"
#include "platform/someip/base/time.h"
#include "platform/someip/wire/message.h"

namespace someip {

/// Longest payload that travels in one datagram.
inline constexpr std::size_t max_datagram_payload = 1400;
/// Payload of every segment but the last.
inline constexpr std::size_t max_segment_payload = 1392;
inline constexpr std::size_t segment_header_size = 4;

/// Header and segment header of the segment that starts at `offset` of a payload of `total` bytes,
/// and the part of the payload that it carries.
struct Segment {
  std::array<std::byte, header_size + segment_header_size> head;
  Bytes part;
};

/// The segment of `payload` that starts at `offset`, a multiple of max_segment_payload.
[[nodiscard]] Segment segment_at(Header header, Bytes payload, std::size_t offset);

/// Calls `send(const Segment&)` for each segment of `payload`, in ascending order; stops when it
/// returns false.
template <class Send>
bool for_each_segment(Header header, Bytes payload, Send&& send);

/// Puts trains together again. Segments must arrive in order; a gap, an overlap or a header that
/// changes drops the whole train, a train of a later session of the same sender and message
/// replaces one that never ended, and a train that stands still is dropped after a while, even when
/// its rest comes at last. Not thread-safe.
class Reassembler {
 public:
  explicit Reassembler(const Limits& limits) : limits_(limits) {}

  enum class Result : std::uint8_t {
    incomplete,  ///< taken, more to come
    complete,    ///< take() gives the message
    broken,      ///< dropped, with the train that it belonged to
    refused,     ///< dropped: a bound was reached
  };

  /// `header` and `payload` are those of the segment; the payload begins with the segment header.
  [[nodiscard]] Result add(const Endpoint& peer, const Header& header, Bytes payload, Time now);

  struct Message {
    Header header;  ///< of the original message: without segment flag, with its length
    std::vector<std::byte> payload;
  };
  /// The message that the last add() completed.
  [[nodiscard]] Message take() { return std::move(complete_); }

  /// Drops the trains of a peer that has restarted.
  void forget(const Address& peer);
  [[nodiscard]] std::size_t trains() const { return trains_.size(); }
  /// Trains that were dropped because they stood still or were replaced, since the last call.
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

template <class Send>
bool for_each_segment(Header header, Bytes payload, Send&& send) {
  for (std::size_t offset = 0; offset < payload.size(); offset += max_segment_payload) {
    if (!send(segment_at(header, payload, offset))) return false;
  }
  return true;
}

}  // namespace someip
