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
  using Receive = std::function<void(Bytes datagram, const Endpoint& from, bool multicast)>;

  /// Takes `own` and the discovery port. Throws std::system_error, with EADDRINUSE when another
  /// process has them. An address that no interface has yet is no error: the network may come up
  /// later.
  Discovery_channel(boost::asio::io_context& control,
                    const Discovery_timing& timing,
                    const Address& own,
                    Counters& counters,
                    Log& log);

  [[nodiscard]] const Address& own() const { return own_; }

  /// `link_watched`: link_changed() will be told of every loss of the link. Otherwise membership in
  /// the group, which may go unnoticed with its interface, is renewed again and again.
  void start(Receive receive, bool link_watched);
  void stop();
  /// The group is joined while the link is up, anew each time. It counts as down at first.
  void link_changed(bool up);
  /// Without `to`, to the group. What cannot be sent is counted; discovery repeats itself.
  void send(const std::vector<std::byte>& message, const std::optional<Endpoint>& to);

 private:
  struct Socket {
    Socket(boost::asio::io_context& control, const Address& like);
    Udp_socket udp;
    boost::asio::posix::stream_descriptor events;  ///< of a duplicate, which it owns
  };

  void wait(Socket& socket, bool multicast);
  void drain(Socket& socket, bool multicast);
  void join();

  const Endpoint group_;
  const Address own_;
  Counters& counters_;
  Log& log_;
  Receive receive_;
  Socket multicast_;
  Socket unicast_;
  boost::asio::steady_timer rejoin_;
  std::vector<std::byte> buffer_;
  bool link_watched_ = false;
  bool stopped_ = false;
};

}  // namespace someip
