/// Watches the link of the network interface that carries the node's address.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <functional>

#include "platform/someip/base/endpoint.h"
#include "platform/someip/base/log.h"

namespace someip {

/// The link is up while a running interface (set up and with a carrier) has the address. A local
/// address without an interface of its own, such as 127.0.0.10, belongs to the loopback interface.
/// Lives on the control thread; only the constructor may run elsewhere.
class Link_watch {
 public:
  /// Called on the control thread, from start() to stop().
  using Callback = std::function<void(bool up)>;

  /// Reads the present state of the link. If the kernel does not report links (a container may
  /// forbid rtnetlink), logs that once; the link then counts as up for ever.
  Link_watch(boost::asio::io_context& control, const Address& own, Log& log, Callback changed);
  /// A disabled watch: the link counts as up.
  Link_watch(boost::asio::io_context& control, const Address& own);

  [[nodiscard]] bool watching() const { return events_.is_open(); }
  [[nodiscard]] bool up() const { return link_.up; }
  /// Reports every change since the construction, even a loss that was over when the kernel's event
  /// was read.
  void start();
  void stop();

 private:
  struct Link {
    bool up = true;
    unsigned interface = 0;  ///< index of the interface with the address; 0: none, or any
  };
  /// The present state of the link; the previous one if the kernel cannot be asked.
  [[nodiscard]] Link look() const;
  void wait();
  void read_events();
  /// True if a message of the kernel, of `size` bytes, reports a loss of the link.
  [[nodiscard]] bool reports_loss(const std::byte* message, std::size_t size) const;
  void set(const Link& link);

  const Address own_;
  boost::asio::posix::stream_descriptor events_;  ///< an rtnetlink socket
  const Callback changed_;
  Link link_;
};

}  // namespace someip
