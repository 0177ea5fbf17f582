/// A TCP connection that carries SOME/IP messages, accepted or opened by this node.
#pragma once

#include <array>
#include <boost/asio/ip/tcp.hpp>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/someip/base/counters.h"
#include "platform/someip/base/deployment.h"
#include "platform/someip/base/endpoint.h"
#include "platform/someip/base/log.h"
#include "platform/someip/base/task.h"
#include "platform/someip/base/time.h"
#include "platform/someip/base/workers.h"
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

/// Keeps child processes from inheriting the socket, and with it the address. Asio's sockets are
/// otherwise inherited.
void close_in_children(int descriptor);

/// Lives on the control thread, except send().
class Tcp_connection final : public Stream, public std::enable_shared_from_this<Tcp_connection> {
 public:
  using Socket = boost::asio::ip::tcp::socket;
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
  Tcp_connection(Socket socket,
                 const Endpoint& peer,
                 bool opened_here,
                 const Limits& limits,
                 Handler& handler,
                 Workers& workers,
                 Counters& counters,
                 Log& log);

  void start();
  void close();
  /// Sends the queued messages, then the end of the stream, and receives nothing more. The end of
  /// the peer's stream is reported as a loss.
  void finish();
  void send(const Header& header, Bytes payload) override;
  /// Sends a magic cookie: a peer that has forgotten the connection answers it with a reset.
  void probe();

  [[nodiscard]] const Endpoint& local() const { return local_; }
  [[nodiscard]] const Endpoint& peer() const { return peer_; }
  [[nodiscard]] Time established() const { return established_; }

 private:
  void receive();
  void enqueue(std::vector<std::byte> bytes);
  void write();
  void end_stream();
  void fail(const char* why);
  void deliver();

  Socket socket_;
  const bool opened_here_;
  const Limits& limits_;
  Handler& handler_;
  Workers& workers_;
  Counters& counters_;
  Log& log_;
  const Endpoint local_;
  const Endpoint peer_;
  const Time established_;
  Stream_reader reader_;
  std::array<std::byte, std::size_t{16} * 1024> buffer_;
  std::vector<std::vector<std::byte>> writing_;  ///< being written; used by the control thread only
  bool open_ = true;                             ///< used by the control thread only
  bool finishing_ = false;                       ///< used by the control thread only

  std::mutex mutex_;  ///< guards the members below
  std::vector<std::vector<std::byte>> queue_;
  std::size_t queued_bytes_ = 0;  ///< in queue_ and writing_
  bool busy_ = false;             ///< a write runs or is requested
  bool dead_ = false;             ///< no message is queued any longer
  Time last_cookie_{};
};

}  // namespace someip
