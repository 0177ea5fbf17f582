#include "platform/someip/net/closed_ports.h"

#include <linux/errqueue.h>
#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace someip {

namespace {

/// After this many errors, timers get their turn.
constexpr int errors_per_turn = 64;

int new_epoll() {
  const int descriptor = epoll_create1(EPOLL_CLOEXEC);
  if (descriptor < 0) {
    throw std::system_error(errno, std::generic_category(),
                            "cannot create an epoll descriptor for the errors of UDP sockets");
  }
  return descriptor;
}

/// epoll always reports errors, and this watch wants nothing else.
epoll_event on_errors(int descriptor) {
  epoll_event event{};
  event.events = EPOLLET;
  event.data.fd = descriptor;
  return event;
}

/// True if `control` says "port unreachable" and `destination` itself sent it.
bool port_is_closed(const cmsghdr& control, const Address& destination) {
  const bool v4 = control.cmsg_level == SOL_IP && control.cmsg_type == IP_RECVERR;
  const bool v6 = control.cmsg_level == SOL_IPV6 && control.cmsg_type == IPV6_RECVERR;
  if (!v4 && !v6) return false;
  // The address of the error's sender lies behind the error.
  struct {
    sock_extended_err error;
    sockaddr_in6 offender;
  } report{};
  const std::size_t size = control.cmsg_len - CMSG_LEN(0);
  std::memcpy(&report, CMSG_DATA(&control), std::min(size, sizeof report));
  if (report.error.ee_errno != ECONNREFUSED ||
      report.error.ee_origin != (v4 ? SO_EE_ORIGIN_ICMP : SO_EE_ORIGIN_ICMP6)) {
    return false;
  }
  Socket_address offender;
  std::memcpy(offender.data(), &report.offender, Socket_address::capacity());
  return offender.endpoint().address == destination;
}

}  // namespace

std::optional<Socket_error> next_error(int descriptor) {
  std::array<std::byte, header_size> quote;
  Socket_address destination;
  alignas(cmsghdr) std::array<std::byte, 512> control;
  iovec part{quote.data(), quote.size()};
  msghdr message{};
  message.msg_name = destination.data();
  message.msg_namelen = Socket_address::capacity();
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  const auto size = ::recvmsg(descriptor, &message, MSG_ERRQUEUE | MSG_DONTWAIT);
  if (size < 0) return std::nullopt;

  Socket_error error;
  const auto header = read_header(Bytes(quote.data(), static_cast<std::size_t>(size)));
  if (message.msg_namelen == 0 || !header) return error;
  const Endpoint to = destination.endpoint();
  for (const cmsghdr* at = CMSG_FIRSTHDR(&message); at != nullptr;
       at = CMSG_NXTHDR(&message, const_cast<cmsghdr*>(at))) {
    if (port_is_closed(*at, to.address)) error.returned = Returned_datagram{to, *header};
  }
  return error;
}

Closed_ports::Closed_ports(boost::asio::io_context& control, Callback returned)
    : errors_(control, new_epoll()), returned_(std::move(returned)) {}

void Closed_ports::add(Udp_socket& socket) {
  socket.keep_errors();
  epoll_event event = on_errors(socket.descriptor());
  if (epoll_ctl(errors_.native_handle(), EPOLL_CTL_ADD, socket.descriptor(), &event) != 0) {
    const int error = errno;  // taken before the text, which may change it
    throw std::system_error(error, std::generic_category(),
                            "cannot watch " + to_string(socket.local()) + " for errors");
  }
}

void Closed_ports::stop() {
  stopped_ = true;
  errors_.cancel();
}

void Closed_ports::wait() {
  errors_.async_wait(boost::asio::posix::descriptor_base::wait_read,
                     [this](const boost::system::error_code& error) {
                       if (error || stopped_) return;
                       look();
                       wait();
                     });
}

void Closed_ports::look() {
  epoll_event event;
  int left = errors_per_turn;
  while (!stopped_ && epoll_wait(errors_.native_handle(), &event, 1, 0) == 1) {
    event = on_errors(event.data.fd);
    while (const auto error = next_error(event.data.fd)) {
      if (error->returned) returned_(*error->returned);
      if (--left > 0) continue;
      // Announces the remaining errors again.
      epoll_ctl(errors_.native_handle(), EPOLL_CTL_MOD, event.data.fd, &event);
      return;
    }
  }
}

}  // namespace someip
