/// A UDP socket as the hot path needs it: sending never waits.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <span>
#include <system_error>

#include "platform/someip/byte_order.h"
#include "platform/someip/endpoint.h"
#include "platform/someip/received.h"

namespace someip {

/// An endpoint in the form that the kernel takes.
class Socket_address {
 public:
  Socket_address() = default;
  explicit Socket_address(const Endpoint& endpoint);
  [[nodiscard]] Endpoint endpoint() const;
  [[nodiscard]] const sockaddr* data() const { return &storage_.any; }
  [[nodiscard]] sockaddr* data() { return &storage_.any; }
  [[nodiscard]] socklen_t size() const;
  static constexpr socklen_t capacity() { return sizeof(Storage); }

 private:
  union Storage {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
  } storage_{};
};

/// Control data of a datagram, in which the kernel tells its arrival.
struct Arrival_control {
  alignas(cmsghdr) std::array<std::byte, CMSG_SPACE(sizeof(timespec))> bytes;
};
/// Of a datagram received with an Arrival_control.
[[nodiscard]] Arrival arrival_of(const msghdr& message);

/// Owns the descriptor. Sending is thread-safe; the rest is for one thread at a time.
class Udp_socket {
 public:
  /// Opens for the address family of `like`. Throws std::system_error.
  explicit Udp_socket(const Address& like);
  ~Udp_socket();
  Udp_socket(const Udp_socket&) = delete;
  Udp_socket& operator=(const Udp_socket&) = delete;

  [[nodiscard]] int descriptor() const { return descriptor_; }
  void reuse_address();
  /// Receiving waits, unless it says otherwise.
  void set_blocking();
  /// Nothing is received any more; whoever waits in the socket returns.
  void end_receiving();
  /// An address that no interface has yet can be bound: the network may come up later.
  void allow_missing_address();
  /// Errors that come back from the network wait in the socket's error queue, with the destination
  /// that they are about. To be called once bound.
  void keep_errors();
  [[nodiscard]] std::error_code bind(const Endpoint& endpoint);
  [[nodiscard]] Endpoint local() const;
  /// Multicast goes out, and is joined, on the interface that owns `own`.
  [[nodiscard]] std::error_code multicast_from(const Address& own);
  [[nodiscard]] std::error_code join(const Address& group, const Address& own);
  /// Also when the interface that was joined on is gone.
  void leave(const Address& group, const Address& own);

  /// EAGAIN when the socket's buffer is full.
  [[nodiscard]] std::error_code send(Bytes datagram, const Socket_address& to) const;
  /// Waits, once set_blocking(). The bytes of the datagram, or -1 for an error.
  [[nodiscard]] ssize_t receive(std::span<std::byte> into,
                                Socket_address& from,
                                Arrival& arrival) const;

 private:
  int descriptor_;
};

}  // namespace someip
