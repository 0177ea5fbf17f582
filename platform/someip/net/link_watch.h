/// Whether the network interface that carries the node's address has its link.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <functional>

#include "platform/someip/base/endpoint.h"
#include "platform/someip/base/log.h"

namespace someip {

/// The link is up while an interface that runs (it is set up and has a carrier) has the address. An
/// address that is local without being any interface's, such as 127.0.0.10, is loopback's. Lives on
/// the control thread; only the constructor may run elsewhere.
class Link_watch {
 public:
  using Tell = std::function<void(bool up)>;

  /// Looks at the link as it is now. When the kernel does not tell about links (no rtnetlink in
  /// this sandbox), says so in the log; the link then counts as up for ever.
  Link_watch(boost::asio::io_context& control, const Address& own, Log& log);
  /// A watch that is switched off: the link counts as up.
  Link_watch(boost::asio::io_context& control, const Address& own);

  [[nodiscard]] bool watching() const { return events_.is_open(); }
  [[nodiscard]] bool up() const { return link_.up; }
  /// `tell` hears of every change since the construction, also of a loss that was over when it was
  /// noticed.
  void start(Tell tell);
  void stop();

 private:
  struct Link {
    bool up = true;
    unsigned interface = 0;  ///< the index of the one that carries the address; 0: none, or any
  };
  /// The link as it is now; as it was when the kernel cannot be asked.
  [[nodiscard]] Link look() const;
  void wait();
  void read_events();
  /// Does a message of the kernel, of `size` bytes, tell that the link was lost?
  [[nodiscard]] bool tells_loss(const std::byte* message, std::size_t size) const;
  void set(const Link& link);

  const Address own_;
  boost::asio::posix::stream_descriptor events_;  ///< an rtnetlink socket
  Link link_;
  Tell tell_;
};

}  // namespace someip
