/// A TCP connection that carries SOME/IP messages, accepted or opened by this node.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/someip/base/endpoint.h"
#include "platform/someip/base/log.h"
#include "platform/someip/base/task.h"
#include "platform/someip/base/time.h"
#include "platform/someip/net/byte_stream.h"
#include "platform/someip/net/received.h"
#include "platform/someip/net/stream.h"
#include "platform/someip/wire/stream_reader.h"

namespace someip {

[[nodiscard]] inline Endpoint endpoint_of(const boost::asio::ip::tcp::endpoint& endpoint) {
  return {endpoint.address(), endpoint.port()};
}
[[nodiscard]] inline boost::asio::ip::tcp::endpoint tcp_endpoint_of(const Endpoint& endpoint) {
  return {endpoint.address, endpoint.port};
}

/// Lives on the control thread, except send().
class Tcp_connection final : public Stream, public Byte_stream {
 public:
  /// Events of a connection. Called on the control thread.
  class Handler {
   public:
    virtual ~Handler() = default;
    virtual void received(Received message,
                          const std::shared_ptr<Tcp_connection>& connection,
                          Tasks& tasks) = 0;
    /// Called once, and not after close().
    virtual void lost(const std::shared_ptr<Tcp_connection>& connection) = 0;
  };

  /// `socket` is connected with `peer`; a socket whose connection is already broken can no longer
  /// name its peer. `opened_here`: this node is the client of the connection.
  Tcp_connection(boost::asio::ip::tcp::socket socket,
                 const Endpoint& peer,
                 bool opened_here,
                 const Limits& limits,
                 Handler& handler,
                 Workers& workers,
                 Counters& counters,
                 Log& log);

  void send(const Header& header, Bytes payload) override;
  /// Sends a magic cookie: a peer that has forgotten the connection answers it with a reset.
  void probe();

  [[nodiscard]] const Endpoint& local() const { return local_; }
  [[nodiscard]] const Endpoint& peer() const { return peer_; }
  [[nodiscard]] Time established() const { return established_; }

 private:
  void take(Bytes received) override;
  void ended(const char* why, End end) override;
  /// Puts a cookie in front when it is time for one.
  void enqueue_with_cookie(std::vector<std::byte> bytes);
  [[nodiscard]] std::shared_ptr<Tcp_connection> self() {
    return std::static_pointer_cast<Tcp_connection>(shared_from_this());
  }

  const bool opened_here_;
  Handler& handler_;
  Log& log_;
  const Endpoint local_;
  const Endpoint peer_;
  const Time established_;
  Stream_reader reader_;

  std::mutex cookie_mutex_;  ///< guards last_cookie_ and the place of a cookie in the queue
  Time last_cookie_{};
};

}  // namespace someip
