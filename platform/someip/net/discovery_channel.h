/// The sockets of service discovery: one in the multicast group, one for unicast and for sending.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <optional>
#include <vector>

#include "platform/someip/base/counters.h"
#include "platform/someip/base/deployment.h"
#include "platform/someip/base/log.h"
#include "platform/someip/net/udp_socket.h"

namespace someip {

/// Lives on the control thread; only the constructor may run elsewhere.
class Discovery_channel {
 public:
  /// Called on the control thread, from start() to stop().
  using Receive = std::function<void(Bytes datagram, const Endpoint& from, bool multicast)>;

  /// Takes `own` and the discovery port. Throws std::system_error, with EADDRINUSE if another
  /// process has them. An address without an interface is no error: the network may come up later.
  Discovery_channel(boost::asio::io_context& control,
                    const Discovery_timing& timing,
                    const Address& own,
                    Counters& counters,
                    Log& log,
                    Receive receive);

  [[nodiscard]] const Address& own() const { return own_; }

  void start();
  void stop();
  /// The channel joins the group each time the link comes up. While the link is up, it renews its
  /// membership regularly: the membership may vanish unnoticed with the interface. The link counts
  /// as down at first.
  void link_changed(bool up);
  /// Sends to `to`, or to the group without it. A message that cannot be sent is counted; discovery
  /// repeats itself.
  void send(const std::vector<std::byte>& message, const std::optional<Endpoint>& to);

 private:
  struct Socket {
    Socket(boost::asio::io_context& control, const Address& like);
    Udp_socket udp;
    boost::asio::posix::stream_descriptor events;  ///< of a duplicate descriptor, which it owns
  };

  void wait(Socket& socket, bool multicast);
  void drain(Socket& socket, bool multicast);
  void join();

  const Endpoint group_;
  const Address own_;
  Counters& counters_;
  Log& log_;
  const Receive receive_;
  Socket multicast_;
  Socket unicast_;
  boost::asio::steady_timer rejoin_;
  std::vector<std::byte> buffer_;
  bool link_up_ = false;
  bool stopped_ = false;
};

}  // namespace someip
