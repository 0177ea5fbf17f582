/// A connection of a Unix socket that carries SOME/IP messages, accepted or opened by this node.
#pragma once

#include <boost/asio/local/stream_protocol.hpp>
#include <memory>
#include <optional>
#include <utility>

#include "platform/someip/base/endpoint.h"
#include "platform/someip/base/task.h"
#include "platform/someip/net/byte_stream.h"
#include "platform/someip/net/received.h"
#include "platform/someip/net/stream.h"
#include "platform/someip/wire/local_frame.h"

namespace someip {

/// Lives on the control thread, except the two members that send.
class Local_connection final : public Byte_stream {
 public:
  /// Events of a connection. Called on the control thread.
  class Handler {
   public:
    virtual ~Handler() = default;
    virtual void received(const Local_frame& frame,
                          const std::shared_ptr<Local_connection>& connection) = 0;
    /// Called once, and not after close(). `refused` is the reason of this side for ending the
    /// connection; null when it did not end it.
    virtual void lost(const std::shared_ptr<Local_connection>& connection, const char* refused) = 0;
  };

  /// `socket` is connected. `peer` is the endpoint that stands for the other end, with an address
  /// of local_address().
  Local_connection(boost::asio::local::stream_protocol::socket socket,
                   Endpoint peer,
                   const Limits& limits,
                   Handler& handler,
                   Workers& workers,
                   Counters& counters);

  /// Sets `header.length`. Drops and counts a message that is too long for the bound of both ends.
  void send(const Local_head& head, const Header& header, Bytes payload);
  void send_discovery(Bytes message, bool to_all) {
    enqueue(local_frame_bytes({to_all ? Local_kind::discovery_to_all : Local_kind::discovery, 0},
                              message));
  }
  [[nodiscard]] const Endpoint& peer() const { return peer_; }

 private:
  void take(Bytes received) override;
  void ended(const char* why, End end) override;
  [[nodiscard]] std::shared_ptr<Local_connection> self() {
    return std::static_pointer_cast<Local_connection>(shared_from_this());
  }

  Handler& handler_;
  const Endpoint peer_;
  Local_frame_reader reader_;
};

[[nodiscard]] inline Local_head local_head(Transport transport, std::uint16_t port) {
  return {transport == Transport::tcp ? Local_kind::tcp : Local_kind::udp, port};
}

/// The connection for the messages of one instance.
class Local_stream final : public Stream {
 public:
  Local_stream(std::shared_ptr<Local_connection> connection, const Local_head& head)
      : connection_(std::move(connection)), head_(head) {}
  void send(const Header& header, Bytes payload) override {
    connection_->send(head_, header, payload);
  }

 private:
  const std::shared_ptr<Local_connection> connection_;
  const Local_head head_;
};

/// The message of an instance in a buffer of its own. Nothing for a segment: a stream needs none.
[[nodiscard]] std::optional<Received> received_from(const Local_frame& frame, Counters& counters);

/// Runs the tasks on the workers.
void post_all(Tasks tasks, Workers& workers);

}  // namespace someip
