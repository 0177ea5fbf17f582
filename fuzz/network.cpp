#include "fuzz/network.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/someip/net/udp_socket.h"

// What the linker makes of the calls: __wrap_… is called instead of the system's, which is
// __real_…. The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" {
int __real_bind(int, const sockaddr*, socklen_t);
int __real_close(int);
int __real_getsockname(int, sockaddr*, socklen_t*);
int __real_getpeername(int, sockaddr*, socklen_t*);
ssize_t __real_sendto(int, const void*, std::size_t, int, const sockaddr*, socklen_t);
ssize_t __real_recvmsg(int, msghdr*, int);
int __real_setsockopt(int, int, int, const void*, socklen_t);
}

namespace fuzz {

namespace {

constexpr std::uint16_t first_port = 40000;
constexpr std::chrono::seconds start_time{1000};

int fail(int error) {
  errno = error;
  return -1;
}

someip::Endpoint endpoint_of(const sockaddr* address, socklen_t size) {
  someip::Socket_address result;
  std::memcpy(result.data(), address,
              std::min<std::size_t>(size, someip::Socket_address::capacity()));
  return result.endpoint();
}

void store(const someip::Endpoint& endpoint, sockaddr* to, socklen_t* size) {
  if (to == nullptr || size == nullptr) return;
  const someip::Socket_address address(endpoint);
  std::memcpy(to, address.data(), std::min<std::size_t>(*size, address.size()));
  *size = address.size();
}

/// Scatters a datagram; the number of bytes that had room.
std::size_t scatter(Bytes from, const iovec* parts, std::size_t count) {
  std::size_t copied = 0;
  for (std::size_t i = 0; i < count && copied < from.size(); ++i) {
    const auto part = from.subspan(copied).first(std::min(parts[i].iov_len, from.size() - copied));
    std::memcpy(parts[i].iov_base, part.data(), part.size());
    copied += part.size();
  }
  return copied;
}

}  // namespace

Network& Network::instance() {
  static Network network;
  return network;
}

void Network::reset() {
  const std::lock_guard lock(mutex_);
  require(sockets_.empty(), "every socket is closed at the end");
  sent_.clear();
  next_port_ = first_port;
  send_error_ = 0;
  accept_ = true;
  now_ = std::chrono::steady_clock::time_point(start_time);
}

int Network::add(bool stream) {
  std::array<int, 2> ends{};
  const int type = (stream ? SOCK_STREAM : SOCK_DGRAM) | SOCK_NONBLOCK | SOCK_CLOEXEC;
  if (::socketpair(AF_UNIX, type, 0, ends.data()) != 0) return -1;
  Socket& socket = sockets_[ends[0]];
  socket.other_end = ends[1];
  socket.stream = stream;
  return ends[0];
}

int Network::socket(int type) {
  const std::lock_guard lock(mutex_);
  return add((type & 0xFF) == SOCK_STREAM);
}

int Network::bind(int descriptor, const someip::Endpoint& local) {
  const std::lock_guard lock(mutex_);
  Socket& socket = sockets_.at(descriptor);
  for (const auto& [other, known] : sockets_) {
    const bool shared = socket.reuse && known.reuse && local.address.is_multicast();
    if (local.port != 0 && known.local == local && known.stream == socket.stream && !shared &&
        !known.peer) {
      return fail(EADDRINUSE);
    }
  }
  socket.local = local;
  if (local.port == 0) socket.local.port = next_port_++;
  return 0;
}

int Network::listen(int descriptor) {
  const std::lock_guard lock(mutex_);
  sockets_.at(descriptor).listening = true;
  return 0;
}

bool Network::connect(const someip::Endpoint& from, const someip::Endpoint& to) {
  if (from.address.is_unspecified() || from.address.is_multicast() || from.port == 0) return false;
  const std::lock_guard lock(mutex_);
  for (auto& [descriptor, socket] : sockets_) {
    if (!socket.listening || !(socket.local == to)) continue;
    constexpr std::byte knock{1};
    if (::send(socket.other_end, &knock, 1, MSG_DONTWAIT) == 1) socket.connecting.push_back(from);
    return true;
  }
  return false;
}

int Network::accept(int descriptor, someip::Endpoint& peer) {
  const std::lock_guard lock(mutex_);
  Socket& listener = sockets_.at(descriptor);
  std::byte knock;
  if (::recv(descriptor, &knock, 1, MSG_DONTWAIT) != 1) return -1;
  peer = listener.connecting.front();
  listener.connecting.pop_front();
  const someip::Endpoint local = listener.local;
  const int accepted = add(true);
  if (accepted < 0) return -1;
  sockets_.at(accepted).local = local;
  sockets_.at(accepted).peer = peer;
  return accepted;
}

int Network::connect(int descriptor, const someip::Endpoint& peer) {
  const std::lock_guard lock(mutex_);
  if (!accept_) return fail(ECONNREFUSED);
  sockets_.at(descriptor).peer = peer;
  return 0;
}

std::map<int, Network::Socket>::iterator Network::connection(std::size_t number) {
  for (auto at = sockets_.begin(); at != sockets_.end(); ++at) {
    if (at->second.peer && at->second.other_end >= 0 && number-- == 0) return at;
  }
  return sockets_.end();
}

std::size_t Network::connections() const {
  const std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::ranges::count_if(sockets_, [](const auto& entry) {
    return entry.second.peer && entry.second.other_end >= 0;
  }));
}

void Network::send(std::size_t number, Bytes bytes) {
  const std::lock_guard lock(mutex_);
  const auto found = connection(number);
  if (found == sockets_.end()) return;
  static_cast<void>(
      ::send(found->second.other_end, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL));
}

void Network::end(std::size_t number) {
  const std::lock_guard lock(mutex_);
  const auto found = connection(number);
  if (found == sockets_.end()) return;
  __real_close(std::exchange(found->second.other_end, -1));
}

void Network::read_all() {
  const std::lock_guard lock(mutex_);
  std::array<std::byte, 4096> bytes;
  for (auto& [descriptor, socket] : sockets_) {
    if (!socket.peer || socket.other_end < 0) continue;
    while (::recv(socket.other_end, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
    }
  }
}

bool Network::owns(int descriptor) const {
  const std::lock_guard lock(mutex_);
  return sockets_.contains(descriptor);
}

bool Network::datagrams(int descriptor) const {
  const std::lock_guard lock(mutex_);
  const auto found = sockets_.find(descriptor);
  return found != sockets_.end() && !found->second.stream;
}

someip::Endpoint Network::local(int descriptor) const {
  const std::lock_guard lock(mutex_);
  return sockets_.at(descriptor).local;
}

std::optional<someip::Endpoint> Network::peer(int descriptor) const {
  const std::lock_guard lock(mutex_);
  return sockets_.at(descriptor).peer;
}

void Network::reuse_address(int descriptor) {
  const std::lock_guard lock(mutex_);
  sockets_.at(descriptor).reuse = true;
}

bool Network::deliver(Bytes datagram, const someip::Endpoint& from, const someip::Endpoint& to) {
  // No kernel lets these through.
  if (from.address.is_unspecified() || from.address.is_multicast() ||
      from.address == boost::asio::ip::address_v4::broadcast()) {
    return false;
  }
  const std::lock_guard lock(mutex_);
  for (auto& [descriptor, socket] : sockets_) {
    if (socket.stream || !(socket.local == to)) continue;
    constexpr std::byte knock{1};
    if (::send(socket.other_end, &knock, 1, MSG_DONTWAIT) == 1) {
      socket.arrived.push_back({from, to, {datagram.begin(), datagram.end()}});
    }
    return true;
  }
  return false;
}

std::ptrdiff_t Network::receive(int descriptor,
                                std::vector<std::byte>& bytes,
                                someip::Endpoint& from) {
  const std::lock_guard lock(mutex_);
  Socket& socket = sockets_.at(descriptor);
  if (socket.arrived.empty()) return fail(EAGAIN);
  std::byte knock;
  ::recv(descriptor, &knock, 1, MSG_DONTWAIT);
  bytes = std::move(socket.arrived.front().bytes);
  from = socket.arrived.front().from;
  socket.arrived.pop_front();
  return static_cast<std::ptrdiff_t>(bytes.size());
}

std::ptrdiff_t Network::send(int descriptor, Datagram datagram) {
  const std::lock_guard lock(mutex_);
  if (send_error_ != 0) return fail(send_error_);
  if (datagram.to.port == 0) return fail(EINVAL);
  datagram.from = sockets_.at(descriptor).local;
  const auto size = static_cast<std::ptrdiff_t>(datagram.bytes.size());
  sent_.push_back(std::move(datagram));
  return size;
}

std::vector<Network::Datagram> Network::take_sent() {
  const std::lock_guard lock(mutex_);
  return std::exchange(sent_, {});
}

void Network::close(int descriptor) {
  const std::lock_guard lock(mutex_);
  const auto found = sockets_.find(descriptor);
  if (found == sockets_.end()) return;
  if (found->second.other_end >= 0) __real_close(found->second.other_end);
  sockets_.erase(found);
}

}  // namespace fuzz

using fuzz::Network;

extern "C" {

int __wrap_socket(int domain, int type, int) {
  // No link is lost here.
  if (domain == AF_NETLINK) return fuzz::fail(EAFNOSUPPORT);
  return Network::instance().socket(type);
}

int __wrap_bind(int descriptor, const sockaddr* address, socklen_t size) {
  return Network::instance().bind(descriptor, fuzz::endpoint_of(address, size));
}

int __wrap_listen(int descriptor, int) {
  return Network::instance().listen(descriptor);
}

int __wrap_accept(int descriptor, sockaddr* address, socklen_t* size) {
  someip::Endpoint peer;
  const int accepted = Network::instance().accept(descriptor, peer);
  if (accepted >= 0) fuzz::store(peer, address, size);
  return accepted;
}

int __wrap_connect(int descriptor, const sockaddr* address, socklen_t size) {
  return Network::instance().connect(descriptor, fuzz::endpoint_of(address, size));
}

int __wrap_getsockname(int descriptor, sockaddr* address, socklen_t* size) {
  if (!Network::instance().owns(descriptor)) return __real_getsockname(descriptor, address, size);
  fuzz::store(Network::instance().local(descriptor), address, size);
  return 0;
}

int __wrap_getpeername(int descriptor, sockaddr* address, socklen_t* size) {
  if (!Network::instance().owns(descriptor)) return __real_getpeername(descriptor, address, size);
  const auto peer = Network::instance().peer(descriptor);
  if (!peer) return fuzz::fail(ENOTCONN);
  fuzz::store(*peer, address, size);
  return 0;
}

int __wrap_setsockopt(int descriptor, int level, int name, const void* value, socklen_t size) {
  if (!Network::instance().owns(descriptor)) {
    return __real_setsockopt(descriptor, level, name, value, size);
  }
  if (level == SOL_SOCKET && name == SO_REUSEADDR) Network::instance().reuse_address(descriptor);
  return 0;
}

ssize_t __wrap_sendto(int descriptor,
                      const void* from,
                      std::size_t size,
                      int flags,
                      const sockaddr* address,
                      socklen_t length) {
  if (!Network::instance().datagrams(descriptor)) {
    return __real_sendto(descriptor, from, size, flags, address, length);
  }
  Network::Datagram datagram;
  datagram.to = fuzz::endpoint_of(address, length);
  const auto* const begin = static_cast<const std::byte*>(from);
  datagram.bytes.assign(begin, begin + size);
  return Network::instance().send(descriptor, std::move(datagram));
}

ssize_t __wrap_recvmsg(int descriptor, msghdr* message, int flags) {
  if ((flags & MSG_ERRQUEUE) != 0 || !Network::instance().datagrams(descriptor)) {
    return __real_recvmsg(descriptor, message, flags);
  }
  std::vector<std::byte> bytes;
  someip::Endpoint from;
  if (Network::instance().receive(descriptor, bytes, from) < 0) return -1;
  fuzz::store(from, static_cast<sockaddr*>(message->msg_name), &message->msg_namelen);
  message->msg_controllen = 0;
  return static_cast<ssize_t>(fuzz::scatter(bytes, message->msg_iov, message->msg_iovlen));
}

int __wrap_recvmmsg(int descriptor, mmsghdr* messages, unsigned count, int flags, timespec*) {
  unsigned received = 0;
  for (; received < count; ++received) {
    const auto size = __wrap_recvmsg(descriptor, &messages[received].msg_hdr, flags);
    if (size < 0) break;
    messages[received].msg_len = static_cast<unsigned>(size);
  }
  return received > 0 ? static_cast<int>(received) : -1;
}

int __wrap_close(int descriptor) {
  Network::instance().close(descriptor);
  return __real_close(descriptor);
}

}  // extern "C"

// std::chrono::steady_clock::now()
std::chrono::steady_clock::time_point now() asm("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");
std::chrono::steady_clock::time_point now() {
  return Network::instance().now();
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
