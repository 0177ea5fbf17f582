/// Learns from ICMP error messages that a destination has closed its port.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <functional>
#include <optional>

#include "platform/someip/base/endpoint.h"
#include "platform/someip/net/udp_socket.h"
#include "platform/someip/wire/message.h"

namespace someip {

/// A returned datagram of ours: `destination` is a closed port.
struct Returned_datagram {
  Endpoint destination;
  Header header;  ///< of the carried message, as the error message quotes it
};

/// The oldest error that waits at the socket; empty if none waits. `returned` is set if the error
/// reports a closed port and quotes the message. Only an error from the destination itself counts.
struct Socket_error {
  std::optional<Returned_datagram> returned;
};
[[nodiscard]] std::optional<Socket_error> next_error(int descriptor);

/// Watches the errors of sockets, and only these: an arriving datagram wakes no thread here. Lives
/// on the control thread, except add().
class Closed_ports {
 public:
  /// Called on the control thread, from start() to stop().
  using Callback = std::function<void(const Returned_datagram&)>;

  /// Throws std::system_error.
  Closed_ports(boost::asio::io_context& control, Callback returned);

  /// Any thread may call. The socket stays watched until it is closed.
  void add(Udp_socket& socket);
  void start() { wait(); }
  void stop();
  /// Reports the errors that have arrived until now.
  void look();

 private:
  void wait();

  boost::asio::posix::stream_descriptor errors_;  ///< an epoll descriptor
  const Callback returned_;
  bool stopped_ = false;
};

}  // namespace someip
