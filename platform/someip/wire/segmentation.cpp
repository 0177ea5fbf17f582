#include "platform/someip/wire/segmentation.h"

namespace someip {

Segment segment_at(Header header, Bytes payload, std::size_t offset) {
  const std::size_t left = payload.size() - offset;
  const bool more = left > max_segment_payload;
  Segment segment;
  segment.part = payload.subspan(offset, more ? max_segment_payload : left);
  header.type |= segment_flag;
  header.length =
      static_cast<std::uint32_t>(length_before_payload + segment_header_size + segment.part.size());
  write_header(header, segment.head.data());
  // Offsets are multiples of 16: the low four bits hold the flags.
  store32(segment.head.data() + header_size, static_cast<std::uint32_t>(offset) | (more ? 1u : 0u));
  return segment;
}

}  // namespace someip
