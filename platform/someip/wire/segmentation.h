/// SOME/IP-TP, sending: a message too long for one datagram leaves as a train of segments.
#pragma once

#include <array>
#include <cstddef>

#include "platform/someip/wire/message.h"

namespace someip {

/// Longest payload of one datagram.
inline constexpr std::size_t max_datagram_payload = 1400;
/// Payload of every segment but the last.
inline constexpr std::size_t max_segment_payload = 1392;
inline constexpr std::size_t segment_header_size = 4;

/// A segment: the header and segment header at an offset of a payload, and its part of the payload.
struct Segment {
  std::array<std::byte, header_size + segment_header_size> head;
  Bytes part;
};

/// The segment of `payload` that starts at `offset`, a multiple of max_segment_payload.
[[nodiscard]] Segment segment_at(Header header, Bytes payload, std::size_t offset);

/// Calls `send(const Segment&)` for each segment of `payload`, in ascending order; stops when it
/// returns false.
template <class Send>
bool for_each_segment(Header header, Bytes payload, Send&& send) {
  for (std::size_t offset = 0; offset < payload.size(); offset += max_segment_payload) {
    if (!send(segment_at(header, payload, offset))) return false;
  }
  return true;
}

}  // namespace someip
