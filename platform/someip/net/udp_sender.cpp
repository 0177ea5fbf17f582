#include "platform/someip/net/udp_sender.h"

#include <algorithm>
#include <array>
#include <string>
#include <system_error>

#include "platform/someip/wire/segmentation.h"

namespace someip {

namespace {

/// A message or a segment, copied into one piece: the kernel needs more time for two pieces than
/// the copy takes.
class Datagram {
 public:
  Datagram(Bytes head, Bytes rest) : size_(head.size() + rest.size()) {
    std::ranges::copy(rest, std::ranges::copy(head, bytes_.begin()).out);
  }
  [[nodiscard]] Bytes bytes() const { return Bytes(bytes_).first(size_); }

 private:
  static constexpr std::size_t longest = header_size + max_datagram_payload;
  static_assert(longest >= header_size + segment_header_size + max_segment_payload);
  std::array<std::byte, longest> bytes_;
  const std::size_t size_;
};

}  // namespace

bool Udp_sender::send_datagram(Bytes datagram, const Socket_address& to) {
  const auto error = socket_->send(datagram, to);
  if (!error) {
    counters_.datagrams_sent.add();
    return true;
  }
  const bool full =
      error == std::errc::operation_would_block || error == std::errc::no_buffer_space;
  (full ? counters_.send_would_block : counters_.send_failed).add();
  log_.limited(Log_level::warning, full ? "full" : "send",
               "cannot send to " + to_string(to.endpoint()) + ": " + error.message());
  return false;
}

void Udp_sender::send(const Header& header, Bytes payload, std::span<const Socket_address> to) {
  const Datagram datagram(header_bytes(header, payload.size()), payload);
  for (const Socket_address& destination : to)
    send_datagram(datagram.bytes(), destination);
}

std::size_t Udp_sender::send_part(const Header& header,
                                  Bytes payload,
                                  std::size_t offset,
                                  std::size_t segments,
                                  const Socket_address& to) {
  if (payload.size() <= max_datagram_payload) {
    send(header, payload, std::span(&to, 1));
    return payload.size();
  }
  for (; segments > 0 && offset < payload.size(); --segments) {
    const Segment segment = segment_at(header, payload, offset);
    if (!send_datagram(Datagram(segment.head, segment.part).bytes(), to)) return payload.size();
    counters_.segments_sent.add();
    offset += segment.part.size();
  }
  return offset;
}

}  // namespace someip
