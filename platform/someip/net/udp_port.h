/// A UDP endpoint of the node on which messages arrive and from which they are sent.
#pragma once

#include <memory>
#include <span>

#include "platform/someip/net/segment_shaper.h"
#include "platform/someip/net/udp_receiver.h"
#include "platform/someip/net/udp_sender.h"

namespace someip {

class Udp_port final {
 public:
  /// `socket` is bound. Messages arrive once one of the two open functions has been called.
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
  /// No message is handed on after it returns; handlers may still run.
  void close() { receiver_->close(); }

  [[nodiscard]] const Endpoint& local() const { return local_; }
  [[nodiscard]] Udp_socket& socket() { return *socket_; }

  /// Sends a message to each destination, in segments when it is long; the segments are spread over
  /// time when they are many. Sets `header.length`. Thread-safe. Never waits: a destination that
  /// cannot be reached now is counted and left out.
  void send(const Header& header, Bytes payload, std::span<const Socket_address> to);

 private:
  const std::shared_ptr<Udp_socket>
      socket_;  ///< shared with both halves, which may outlive the port
  const Endpoint local_;
  const std::shared_ptr<Udp_receiver> receiver_;  ///< its threads hold it, too
  const std::shared_ptr<Udp_sender> sender_;      ///< messages in the shaper hold it, too
  Segment_shaper& shaper_;
};

}  // namespace someip
