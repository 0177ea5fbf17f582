/// A UDP endpoint of the node for sending and receiving messages.
#pragma once

#include <memory>
#include <span>

#include "platform/someip/net/segment_shaper.h"
#include "platform/someip/net/udp_receiver.h"
#include "platform/someip/net/udp_sender.h"

namespace someip {

/// Joins the receiving and the sending half of one socket, and sends long messages through the
/// shaper.
class Udp_port final {
 public:
  /// `socket` is bound. Messages arrive after a call of one of the two open functions.
  Udp_port(std::shared_ptr<Udp_socket> socket,
           Message_receiver& receiver,
           Workers& workers,
           Shared_reassembler& reassembler,
           Segment_shaper& shaper,
           Counters& counters,
           Log& log);

  /// Opens the port: the workers receive.
  void open() { receiver_->open(); }
  /// Opens the port with threads of its own, see Udp_receiver.
  void open_with_threads() { receiver_->open_with_threads(); }
  /// Hands on no message after its return; handlers may still run.
  void close() { receiver_->close(); }

  [[nodiscard]] const Endpoint& local() const { return local_; }
  [[nodiscard]] Udp_socket& socket() { return *socket_; }

  /// Sends a message to each destination; a long message leaves in segments, many segments are
  /// spread over time. Sets `header.length`. Thread-safe. Never waits: a destination that cannot be
  /// reached now is counted and skipped.
  void send(const Header& header, Bytes payload, std::span<const Socket_address> to);

 private:
  const std::shared_ptr<Udp_socket>
      socket_;  ///< shared with both halves, which may outlive the port
  const Endpoint local_;
  const std::shared_ptr<Udp_receiver> receiver_;  ///< shared with its threads
  const std::shared_ptr<Udp_sender> sender_;      ///< shared with the messages in the shaper
  Segment_shaper& shaper_;
};

}  // namespace someip
