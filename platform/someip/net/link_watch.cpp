#include "platform/someip/net/link_watch.h"

#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/someip/net/udp_socket.h"

namespace someip {

namespace {

bool runs(unsigned flags) {
  return (flags & IFF_UP) != 0 && (flags & IFF_RUNNING) != 0;
}

/// Returns -1 and sets errno if the kernel gives us no events.
int open_events() {
  const int descriptor =
      ::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (descriptor < 0) return -1;
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
  sockaddr_storage bytes{};
  std::memcpy(&bytes, &address, sizeof address);
  const auto* const any = reinterpret_cast<const sockaddr*>(&bytes);
  if (::bind(descriptor, any, sizeof address) == 0) return descriptor;
  const int error = errno;
  ::close(descriptor);
  errno = error;
  return -1;
}

/// True if packets can be sent from `own` and received there. Throws std::system_error.
bool is_local(const Address& own) {
  Udp_socket probe(own);
  return probe.bind({own, 0}) != std::errc::address_not_available;
}

template <class Value>
Value value_at(const std::byte* at) {
  Value value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

/// True if an address message of the kernel concerns `own`.
bool is_about(const Address& own, const std::byte* attributes, std::size_t size) {
  bool found = false;
  while (size >= sizeof(rtattr)) {
    const auto attribute = value_at<rtattr>(attributes);
    if (attribute.rta_len < sizeof(rtattr) || attribute.rta_len > size) break;
    const std::byte* const content = attributes + RTA_LENGTH(0);
    const std::size_t length = attribute.rta_len - RTA_LENGTH(0);
    // On point-to-point links IFA_ADDRESS is the other end, and IFA_LOCAL the own address.
    if (attribute.rta_type == IFA_LOCAL || attribute.rta_type == IFA_ADDRESS) {
      if (own.is_v4() && length == 4) {
        found |=
            own.to_v4().to_bytes() == value_at<boost::asio::ip::address_v4::bytes_type>(content);
      } else if (own.is_v6() && length == 16) {
        found |=
            own.to_v6().to_bytes() == value_at<boost::asio::ip::address_v6::bytes_type>(content);
      }
    }
    const std::size_t step = std::min<std::size_t>(RTA_ALIGN(attribute.rta_len), size);
    attributes += step;
    size -= step;
  }
  return found;
}

}  // namespace

Link_watch::Link_watch(boost::asio::io_context& control, const Address& own)
    : own_(own), events_(control) {}

Link_watch::Link_watch(boost::asio::io_context& control,
                       const Address& own,
                       Log& log,
                       Callback changed)
    : own_(own), events_(control), changed_(std::move(changed)) {
  const int descriptor = open_events();
  if (descriptor < 0) {
    log.write(Log_level::warning, "the link of " + own.to_string() +
                                      " cannot be watched and is taken to be up: " +
                                      std::generic_category().message(errno));
    return;
  }
  events_.assign(descriptor);
  link_ = look();
}

void Link_watch::start() {
  if (watching()) wait();
}

void Link_watch::stop() {
  boost::system::error_code ignored;
  events_.close(ignored);
}

void Link_watch::wait() {
  events_.async_wait(boost::asio::posix::descriptor_base::wait_read,
                     [this](const boost::system::error_code& error) {
                       if (error || !watching()) return;
                       read_events();
                       if (watching()) wait();
                     });
}

Link_watch::Link Link_watch::look() const {
  try {
    if (!is_local(own_)) return {false, 0};
  } catch (const std::system_error&) {
    return link_;  // out of descriptors: the next event asks again
  }
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return link_;
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, freeifaddrs);
  Link loopback{true, 0};
  for (const ifaddrs* at = list; at != nullptr; at = at->ifa_next) {
    const Link link{runs(at->ifa_flags), if_nametoindex(at->ifa_name)};
    if ((at->ifa_flags & IFF_LOOPBACK) != 0) loopback = link;
    if (at->ifa_addr == nullptr) continue;
    const auto family = at->ifa_addr->sa_family;
    if (family != (own_.is_v4() ? AF_INET : AF_INET6)) continue;
    Socket_address address;
    std::memcpy(address.data(), at->ifa_addr,
                family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
    const Address known = address.endpoint().address;
    if (own_.is_v4() ? known == own_ : known.to_v6().to_bytes() == own_.to_v6().to_bytes()) {
      return link;
    }
  }
  return loopback;
}

bool Link_watch::reports_loss(const std::byte* message, std::size_t size) const {
  const auto header = value_at<nlmsghdr>(message);
  const std::byte* const content = message + NLMSG_HDRLEN;
  const std::size_t length = size - NLMSG_HDRLEN;
  switch (header.nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK: {
      if (length < sizeof(ifinfomsg)) return false;
      const auto link = value_at<ifinfomsg>(content);
      // A bridge reports in the same form that a port has left it.
      if (link.ifi_family != AF_UNSPEC || std::cmp_not_equal(link.ifi_index, link_.interface)) {
        return false;
      }
      return header.nlmsg_type == RTM_DELLINK || !runs(link.ifi_flags);
    }
    case RTM_DELADDR: {
      if (length < NLMSG_ALIGN(sizeof(ifaddrmsg))) return false;
      const auto address = value_at<ifaddrmsg>(content);
      const std::size_t attributes = NLMSG_ALIGN(sizeof(ifaddrmsg));
      return address.ifa_index == link_.interface &&
             is_about(own_, content + attributes, length - attributes);
    }
    default:
      return false;
  }
}

void Link_watch::read_events() {
  bool lost = false;
  alignas(nlmsghdr) std::array<std::byte, std::size_t{16} * 1024> buffer;
  for (;;) {
    sockaddr_nl from{};
    iovec part{buffer.data(), buffer.size()};
    msghdr message{};
    message.msg_name = &from;
    message.msg_namelen = sizeof from;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    const auto received = ::recvmsg(events_.native_handle(), &message, MSG_DONTWAIT);
    if (received < 0) {
      // The queue overflowed and the kernel dropped events: the code below looks at the link
      // itself.
      if (errno == ENOBUFS || errno == EINTR) continue;
      break;
    }
    if (from.nl_pid != 0) continue;  // not from the kernel
    const std::byte* at = buffer.data();
    auto left = static_cast<std::size_t>(received);
    while (left >= NLMSG_HDRLEN) {
      const std::size_t size = value_at<nlmsghdr>(at).nlmsg_len;
      if (size < NLMSG_HDRLEN || size > left) break;
      lost |= reports_loss(at, size);
      const std::size_t step = std::min<std::size_t>(NLMSG_ALIGN(size), left);
      at += step;
      left -= step;
    }
  }
  if (lost) set({false, link_.interface});
  if (watching()) set(look());
}

void Link_watch::set(const Link& link) {
  const bool changed = link.up != link_.up;
  link_ = link;
  if (changed) changed_(link.up);
}

}  // namespace someip
