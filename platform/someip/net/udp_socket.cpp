#include "platform/someip/net/udp_socket.h"

#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace someip {

namespace {

std::error_code last_error() {
  return {errno, std::generic_category()};
}

template <class Value>
std::error_code set(int descriptor, int level, int name, const Value& value) {
  return ::setsockopt(descriptor, level, name, &value, sizeof value) == 0 ? std::error_code{}
                                                                          : last_error();
}

in_addr v4(const Address& address) {
  const auto bytes = address.to_v4().to_bytes();
  in_addr result;
  std::memcpy(&result, bytes.data(), sizeof result);
  return result;
}

/// Index of the interface that owns an IPv6 address; 0 lets the kernel choose.
unsigned interface_of(const Address& own) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return 0;
  unsigned index = 0;
  const auto bytes = own.to_v6().to_bytes();
  for (const ifaddrs* at = list; at != nullptr && index == 0; at = at->ifa_next) {
    if (at->ifa_addr == nullptr || at->ifa_addr->sa_family != AF_INET6) continue;
    sockaddr_in6 address;
    std::memcpy(&address, at->ifa_addr, sizeof address);
    if (std::memcmp(&address.sin6_addr, bytes.data(), bytes.size()) == 0) {
      index = if_nametoindex(at->ifa_name);
    }
  }
  freeifaddrs(list);
  return index;
}

ip_mreq membership_v4(const Address& group, const Address& own) {
  ip_mreq request{};
  request.imr_multiaddr = v4(group);
  request.imr_interface = v4(own);
  return request;
}

ipv6_mreq membership_v6(const Address& group, const Address& own) {
  ipv6_mreq request{};
  const auto bytes = group.to_v6().to_bytes();
  std::memcpy(&request.ipv6mr_multiaddr, bytes.data(), bytes.size());
  request.ipv6mr_interface = interface_of(own);
  return request;
}

// The calls on the path of a notification bypass the C library. Its functions are points where a
// thread may be cancelled; no thread here ever is, and they cost two atomic operations each. The
// sanitizers and the network of fuzz/ see only the C library's functions.
#ifdef SOMEIP_CALLS_ARE_WATCHED
constexpr bool direct = false;
#else
constexpr bool direct = true;
#endif

ssize_t send_to(int descriptor, Bytes datagram, const Socket_address& to) {
  constexpr int flags = MSG_DONTWAIT | MSG_NOSIGNAL;
  return direct
             ? ::syscall(SYS_sendto, descriptor, datagram.data(), datagram.size(), flags, to.data(),
                         to.size())
             : ::sendto(descriptor, datagram.data(), datagram.size(), flags, to.data(), to.size());
}

ssize_t receive_message(int descriptor, msghdr& message, int flags) {
  return direct ? ::syscall(SYS_recvmsg, descriptor, &message, flags)
                : ::recvmsg(descriptor, &message, flags);
}

/// A datagram's message header with all its parts.
class Incoming {
 public:
  void expect(Udp_socket::Arrival& arrival, msghdr& header) {
    parts_[0] = {arrival.begin.data(), arrival.begin.size()};
    parts_[1] = {arrival.rest.data(), arrival.rest.size()};
    header.msg_name = arrival.from.data();
    header.msg_namelen = Socket_address::capacity();
    header.msg_iov = parts_.data();
    header.msg_iovlen = arrival.rest.empty() ? 1 : 2;
    header.msg_control = control_.data();
    header.msg_controllen = control_.size();
  }

 private:
  std::array<iovec, 2> parts_;
  alignas(cmsghdr) std::array<std::byte, CMSG_SPACE(sizeof(timespec))> control_;
};

/// When the kernel received the datagram behind `header`.
Arrival_time time_of(const msghdr& header) {
  const cmsghdr* const control = CMSG_FIRSTHDR(&header);
  if (control == nullptr || control->cmsg_level != SOL_SOCKET ||
      control->cmsg_type != SO_TIMESTAMPNS) {
    return {};
  }
  timespec time{};
  std::memcpy(&time, CMSG_DATA(control), sizeof time);
  return Arrival_time{std::chrono::seconds{time.tv_sec} + std::chrono::nanoseconds{time.tv_nsec}};
}

}  // namespace

Socket_address::Socket_address(const Endpoint& endpoint) {
  if (endpoint.address.is_v4()) {
    storage_.v4.sin_family = AF_INET;
    storage_.v4.sin_port = htons(endpoint.port);
    storage_.v4.sin_addr = v4(endpoint.address);
  } else {
    const auto address = endpoint.address.to_v6();
    const auto bytes = address.to_bytes();
    storage_.v6.sin6_family = AF_INET6;
    storage_.v6.sin6_port = htons(endpoint.port);
    storage_.v6.sin6_scope_id = static_cast<std::uint32_t>(address.scope_id());
    std::memcpy(&storage_.v6.sin6_addr, bytes.data(), bytes.size());
  }
}

Endpoint Socket_address::endpoint() const {
  if (storage_.any.sa_family == AF_INET) {
    return {boost::asio::ip::address_v4(ntohl(storage_.v4.sin_addr.s_addr)),
            ntohs(storage_.v4.sin_port)};
  }
  boost::asio::ip::address_v6::bytes_type bytes;
  std::memcpy(bytes.data(), &storage_.v6.sin6_addr, bytes.size());
  return {boost::asio::ip::address_v6(bytes, storage_.v6.sin6_scope_id),
          ntohs(storage_.v6.sin6_port)};
}

socklen_t Socket_address::size() const {
  return storage_.any.sa_family == AF_INET ? sizeof storage_.v4 : sizeof storage_.v6;
}

void allow_missing_address(int descriptor) {
  const int on = 1;
  static_cast<void>(set(descriptor, SOL_IP, IP_FREEBIND, on));
}

Udp_socket::Udp_socket(const Address& like)
    : descriptor_(::socket(
          like.is_v4() ? AF_INET : AF_INET6, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
  if (descriptor_ < 0) {
    const auto error = last_error();  // taken before the text, which may change errno
    throw std::system_error(error, "cannot open a UDP socket for " + like.to_string());
  }
  // A burst of segments should fit while the workers are busy; the kernel limits the size.
  const int receive_buffer = 4 * 1024 * 1024;
  static_cast<void>(set(descriptor_, SOL_SOCKET, SO_RCVBUF, receive_buffer));
  // An older kernel ignores this; the arrival of datagrams is then unknown.
  const int on = 1;
  static_cast<void>(set(descriptor_, SOL_SOCKET, SO_TIMESTAMPNS, on));
}

Udp_socket::~Udp_socket() {
  ::close(descriptor_);
}

int Udp_socket::duplicate() const {
  const int copy = ::fcntl(descriptor_, F_DUPFD_CLOEXEC, 0);
  if (copy < 0) throw std::system_error(last_error(), "cannot duplicate a UDP socket");
  return copy;
}

void Udp_socket::reuse_address() {
  const int on = 1;
  static_cast<void>(set(descriptor_, SOL_SOCKET, SO_REUSEADDR, on));
}

void Udp_socket::set_blocking() {
  ::fcntl(descriptor_, F_SETFL, 0);
}

void Udp_socket::end_receiving() {
  // Reports that the socket is not connected, and still wakes the waiting threads.
  ::shutdown(descriptor_, SHUT_RD);
}

void Udp_socket::keep_errors() {
  const int on = 1;
  const bool v4 = local().address.is_v4();
  static_cast<void>(set(descriptor_, v4 ? SOL_IP : SOL_IPV6, v4 ? IP_RECVERR : IPV6_RECVERR, on));
}

std::error_code Udp_socket::bind(const Endpoint& endpoint) {
  const Socket_address address(endpoint);
  return ::bind(descriptor_, address.data(), address.size()) == 0 ? std::error_code{}
                                                                  : last_error();
}

Endpoint Udp_socket::local() const {
  Socket_address address;
  socklen_t size = Socket_address::capacity();
  ::getsockname(descriptor_, address.data(), &size);
  return address.endpoint();
}

std::error_code Udp_socket::multicast_from(const Address& own) {
  const int on = 1;
  if (own.is_v4()) {
    if (const auto error = set(descriptor_, IPPROTO_IP, IP_MULTICAST_LOOP, on)) return error;
    return set(descriptor_, IPPROTO_IP, IP_MULTICAST_IF, v4(own));
  }
  if (const auto error = set(descriptor_, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, on)) return error;
  return set(descriptor_, IPPROTO_IPV6, IPV6_MULTICAST_IF, static_cast<int>(interface_of(own)));
}

std::error_code Udp_socket::join(const Address& group, const Address& own) {
  return group.is_v4() ? set(descriptor_, IPPROTO_IP, IP_ADD_MEMBERSHIP, membership_v4(group, own))
                       : set(descriptor_, IPPROTO_IPV6, IPV6_JOIN_GROUP, membership_v6(group, own));
}

void Udp_socket::leave(const Address& group, const Address& own) {
  static_cast<void>(
      group.is_v4() ? set(descriptor_, IPPROTO_IP, IP_DROP_MEMBERSHIP, membership_v4(group, own))
                    : set(descriptor_, IPPROTO_IPV6, IPV6_LEAVE_GROUP, membership_v6(group, own)));
}

std::error_code Udp_socket::send(Bytes datagram, const Socket_address& to) const {
  for (int attempts = 3;;) {
    if (send_to(descriptor_, datagram, to) >= 0) return {};
    if (errno == EINTR) continue;
    // With keep_errors() the call first reports, once, the error of an earlier datagram to another
    // destination.
    if (--attempts == 0 || errno == EAGAIN || errno == ENOBUFS) return last_error();
  }
}

void Udp_socket::wait() const {
  msghdr nothing{};
  static_cast<void>(receive_message(descriptor_, nothing, MSG_PEEK));
}

bool Udp_socket::receive(Arrival& arrival) const {
  Incoming incoming;
  msghdr header{};
  incoming.expect(arrival, header);
  const ssize_t size = receive_message(descriptor_, header, MSG_DONTWAIT);
  if (size < 0) return false;
  arrival.size = static_cast<std::size_t>(size);
  arrival.time = time_of(header);
  return true;
}

std::size_t Udp_socket::receive(std::span<Arrival> arrivals) const {
  std::array<Incoming, max_arrivals> incoming;
  std::array<mmsghdr, max_arrivals> messages{};
  const std::size_t most = std::min(arrivals.size(), max_arrivals);
  for (std::size_t i = 0; i < most; ++i)
    incoming[i].expect(arrivals[i], messages[i].msg_hdr);
  int count = -1;
  // Instead of a datagram, the kernel reports here, once, the error of an earlier send (a closed
  // port). Only EAGAIN means that the socket is empty.
  do {
    count = ::recvmmsg(descriptor_, messages.data(), static_cast<unsigned>(most), MSG_DONTWAIT,
                       nullptr);
  } while (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
  const std::size_t received = count < 0 ? 0 : static_cast<std::size_t>(count);
  for (std::size_t i = 0; i < received; ++i) {
    arrivals[i].size = messages[i].msg_len;
    arrivals[i].time = time_of(messages[i].msg_hdr);
  }
  return received;
}

}  // namespace someip
