/// A UDP socket for the hot path: sending never waits.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <span>
#include <system_error>

#include "platform/someip/base/byte_order.h"
#include "platform/someip/base/endpoint.h"
#include "platform/someip/net/received.h"

namespace someip {

/// An endpoint in the form that the kernel accepts.
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

/// Allows binding a socket, UDP or TCP, to an address without an interface: the network may come up
/// later.
void allow_missing_address(int descriptor);

/// Owns the descriptor. Sending, waiting and receiving are thread-safe; the rest is for one thread
/// at a time.
class Udp_socket {
 public:
  /// Opens a socket for the address family of `like`. Throws std::system_error.
  explicit Udp_socket(const Address& like);
  ~Udp_socket();
  Udp_socket(const Udp_socket&) = delete;
  Udp_socket& operator=(const Udp_socket&) = delete;

  [[nodiscard]] int descriptor() const { return descriptor_; }
  /// A second descriptor of the socket, which the caller owns. Child processes do not inherit it.
  /// Throws std::system_error.
  [[nodiscard]] int duplicate() const;
  void reuse_address();
  /// Makes wait() wait.
  void set_blocking();
  /// Ends each wait(), present and future. Thread-safe.
  void end_receiving();
  /// Keeps errors from the network in the socket's error queue, each with its destination. Call it
  /// after binding.
  void keep_errors();
  [[nodiscard]] std::error_code bind(const Endpoint& endpoint);
  [[nodiscard]] Endpoint local() const;
  /// Sends and joins multicast on the interface that owns `own`.
  [[nodiscard]] std::error_code multicast_from(const Address& own);
  [[nodiscard]] std::error_code join(const Address& group, const Address& own);
  /// Works even if the interface of the membership is gone.
  void leave(const Address& group, const Address& own);

  /// Returns EAGAIN if the socket's buffer is full.
  [[nodiscard]] std::error_code send(Bytes datagram, const Socket_address& to) const;
  /// After set_blocking(): waits for a datagram or an error, and leaves the datagram in the socket.
  /// Each arrival wakes one of the waiting threads. Returns at once after end_receiving().
  void wait() const;

  /// Room for a datagram in two pieces, and the datagram.
  struct Arrival {
    std::span<std::byte> begin, rest;
    Socket_address from;
    std::size_t size = 0;
    Arrival_time time = {};
  };
  /// Receives one datagram; never waits. Returns false if there is none or for the error of an
  /// earlier send.
  [[nodiscard]] bool receive(Arrival& arrival) const;
  static constexpr std::size_t max_arrivals = 8;
  /// Receives at most `max_arrivals` datagrams; never waits. Returns their number, which is smaller
  /// than that of `arrivals` only if the socket was empty.
  [[nodiscard]] std::size_t receive(std::span<Arrival> arrivals) const;

 private:
  int descriptor_;
};

}  // namespace someip
