/// The path of a node without an address to the node that listens at a Unix socket.
#pragma once

#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <string>

#include "platform/someip/net/local_connection.h"

namespace someip {

/// Connects, and connects again after a loss. Lives on the control thread.
class Local_client final : private Local_connection::Handler {
 public:
  /// Called on the control thread, from start() to close().
  struct Events {
    /// The connection stands, or broke. It is down at first.
    std::function<void(bool up)> changed;
    std::function<void(const Local_frame& frame)> received;
  };

  /// `server` stands for the other end, with an address of local_address().
  Local_client(std::string path,
               Endpoint server,
               const Limits& limits,
               Workers& workers,
               Counters& counters,
               Events events);

  void start() { connect(); }
  void close();
  [[nodiscard]] const Endpoint& server() const { return server_; }

  // Without a connection these two drop the message.
  void send_discovery(Bytes message, bool to_all);
  void send(const Local_head& head, const Header& header, Bytes payload);

 private:
  void connect();
  void retry();
  void received(const Local_frame& frame,
                const std::shared_ptr<Local_connection>& connection) override;
  void lost(const std::shared_ptr<Local_connection>& connection, const char* refused) override;

  const std::string path_;
  const Endpoint server_;
  const Limits& limits_;
  Workers& workers_;
  Counters& counters_;
  const Events events_;
  boost::asio::steady_timer timer_;
  Milliseconds next_retry_;
  std::shared_ptr<Local_connection> connection_;
  bool closed_ = false;
};

}  // namespace someip
