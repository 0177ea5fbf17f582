/// The sending half of a UDP port; the segment shaper uses it too.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <utility>

#include "platform/someip/base/counters.h"
#include "platform/someip/base/log.h"
#include "platform/someip/net/udp_socket.h"
#include "platform/someip/wire/message.h"

namespace someip {

/// Sends messages from a socket at once, long ones in segments. Thread-safe. Never waits: a
/// datagram that cannot be sent now is counted and dropped.
class Udp_sender {
 public:
  Udp_sender(std::shared_ptr<Udp_socket> socket, Counters& counters, Log& log)
      : socket_(std::move(socket)), counters_(counters), log_(log) {}

  /// Sends a message that fits into one datagram to each destination. Sets `header.length`.
  void send(const Header& header, Bytes payload, std::span<const Socket_address> to);
  /// Sends at most `segments` segments of a message, starting at `offset` of its payload. A message
  /// that fits into one datagram is sent whole. Returns the offset that follows. If a segment
  /// cannot be sent, drops the rest and returns the end of the payload.
  std::size_t send_part(const Header& header,
                        Bytes payload,
                        std::size_t offset,
                        std::size_t segments,
                        const Socket_address& to);

 private:
  bool send_datagram(Bytes datagram, const Socket_address& to);

  const std::shared_ptr<Udp_socket> socket_;  ///< shared: messages in the shaper outlive their port
  Counters& counters_;
  Log& log_;
};

}  // namespace someip
