#include "platform/someip/net/udp_port.h"

#include <utility>

#include "platform/someip/wire/segmentation.h"

namespace someip {

Udp_port::Udp_port(std::shared_ptr<Udp_socket> socket,
                   Message_receiver& receiver,
                   Workers& workers,
                   Shared_reassembler& reassembler,
                   Segment_shaper& shaper,
                   Counters& counters,
                   Log& log)
    : socket_(std::move(socket)),
      local_(socket_->local()),
      receiver_(
          std::make_shared<Udp_receiver>(socket_, receiver, workers, reassembler, counters, log)),
      sender_(std::make_shared<Udp_sender>(socket_, counters, log)),
      shaper_(shaper) {}

void Udp_port::send(const Header& header, Bytes payload, std::span<const Socket_address> to) {
  if (payload.size() > max_datagram_payload || !shaper_.idle()) {
    shaper_.send(sender_, header, payload, to);
  } else {
    sender_->send(header, payload, to);
  }
}

}  // namespace someip
