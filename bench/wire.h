/// What the benchmarks send and receive with plain sockets, and how they measure the way of a
/// datagram: through the application or through the bare relay that it is compared with.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "binding/codec.h"
#include "clients/gnss_records.h"
#include "platform/someip/wire/message.h"
#include "tests/support/network.h"

namespace bench {

using Clock = std::chrono::steady_clock;

/// Who is where in one network. Several may exist beside each other: `number` tells them apart.
struct Addresses {
  Addresses(const std::string& prefix, int bits, int number)
      : application{prefix + std::to_string(10 + number)},
        own{prefix + std::to_string(20 + number)},
        relay{prefix + std::to_string(40 + number)},
        group{"239.192." + std::to_string(test::network()) + "." + std::to_string(1 + number)},
        discovery_port{static_cast<std::uint16_t>(31490 + number)},
        prefix_length{bits} {}

  std::string application;
  std::string own;  ///< of the source and the subscriber
  std::string relay;
  std::string group;
  std::uint16_t discovery_port;
  int prefix_length;
};

/// On the loopback device; `number` from 0 to 9.
inline Addresses loopback(int number = 0) {
  return {"127." + std::to_string(test::network()) + ".0.", 8, number};
}

inline constexpr std::uint16_t source_port = 30501;  ///< of the relay, too
inline constexpr std::uint16_t subscriber_port = 30600;
inline constexpr std::uint16_t gnss_service = 0x2A10;
inline constexpr std::uint16_t positioning_service = 0x2A20;
inline constexpr std::uint16_t positions_event = 0x8001;

inline sockaddr_in endpoint(const std::string& address, std::uint16_t port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_port = htons(port);
  if (inet_pton(AF_INET, address.c_str(), &result.sin_addr) != 1) throw std::runtime_error{address};
  return result;
}

class Socket {
 public:
  explicit Socket(const sockaddr_in& local)
      : descriptor_{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)} {
    timeval timeout{.tv_sec = 0, .tv_usec = 200'000};
    setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    const int buffer = 4 * 1024 * 1024;
    setsockopt(descriptor_, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
    // Only a group is shared: a second run on the same addresses would take datagrams of the first.
    const int shared = IN_MULTICAST(ntohl(local.sin_addr.s_addr)) ? 1 : 0;
    setsockopt(descriptor_, SOL_SOCKET, SO_REUSEADDR, &shared, sizeof shared);
    if (bind(descriptor_, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
      const int error = errno;
      ::close(descriptor_);
      std::array<char, INET_ADDRSTRLEN> text{};
      inet_ntop(AF_INET, &local.sin_addr, text.data(), text.size());
      throw std::runtime_error{std::string{text.data()} + ":" +
                               std::to_string(ntohs(local.sin_port)) + ": " + std::strerror(error)};
    }
  }
  ~Socket() { ::close(descriptor_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  void join(const std::string& group, const std::string& interface) {
    ip_mreq request{endpoint(group, 0).sin_addr, endpoint(interface, 0).sin_addr};
    setsockopt(descriptor_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request);
  }
  void send_multicast_from(const std::string& address) {
    const in_addr interface = endpoint(address, 0).sin_addr;
    setsockopt(descriptor_, IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface);
  }
  void send(std::span<const std::byte> bytes, const sockaddr_in& to) const {
    (void)sendto(descriptor_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                 sizeof to);
  }
  /// Bytes received, 0 after the time-out of 200 ms.
  std::size_t receive(std::span<std::byte> buffer,
                      sockaddr_in* from = nullptr,
                      int flags = 0) const {
    socklen_t size = sizeof(sockaddr_in);
    const auto count =
        recvfrom(descriptor_, buffer.data(), buffer.size(), flags,
                 reinterpret_cast<sockaddr*>(from), from == nullptr ? nullptr : &size);
    return count < 0 ? 0 : static_cast<std::size_t>(count);
  }

 private:
  int descriptor_;
};

inline std::vector<std::byte> gnss_datagram() {
  namespace gnss = lumo::services::gnss::datatypes;
  std::vector<gnss::DT_positions_struct> positions(1);
  auto& position = positions.front();
  binding::for_each_quantity<gnss::DT_positions_struct>([&](const auto& quantity) {
    using Value = typename std::remove_cvref_t<decltype(quantity.value)>::value_type;
    position.*quantity.value.pointer = static_cast<Value>(12.3456789 + quantity.value.id);
    position.*quantity.quality.pointer = binding::Value_type::physical_value;
  });
  position.positionType = lumo::services::Position_type::gnss_dr;
  position.messageCounter = 7;
  std::vector<std::byte> payload;
  binding::encode(positions, payload);
  someip::Header header;
  header.service = gnss_service;
  header.method = positions_event;
  header.interface_version = 3;
  header.type = static_cast<std::uint8_t>(someip::Message_type::notification);
  const auto bytes = someip::header_bytes(header, payload.size());
  std::vector<std::byte> datagram(bytes.size() + payload.size());
  std::ranges::copy(payload, std::ranges::copy(bytes, datagram.begin()).out);
  return datagram;
}

/// From the source's socket over whoever listens at `to` to the subscriber's socket.
struct Network_path {
  const Socket& source;
  const Socket& subscriber;
  sockaddr_in to;
  /// The subscriber asks again and again instead of sleeping: then who is measured does not pay for
  /// waking it. For a subscriber that has a processor of its own.
  bool polls = false;

  /// Bytes of the next datagram at the subscriber, 0 when none came for 200 ms.
  std::size_t receive(std::span<std::byte> buffer) const {
    if (!polls) return subscriber.receive(buffer);
    const auto deadline = Clock::now() + std::chrono::milliseconds{200};
    for (;;) {
      const auto size = subscriber.receive(buffer, nullptr, MSG_DONTWAIT);
      if (size != 0 || Clock::now() > deadline) return size;
    }
  }
  /// Takes away what came too late: it is not to be mistaken for the next datagram.
  void drain() const {
    std::array<std::byte, 2048> buffer;
    while (subscriber.receive(buffer, nullptr, MSG_DONTWAIT) != 0) {
    }
  }
};

/// Microseconds that one datagram is on its way, nothing when it was lost.
inline std::optional<double> travel(const Network_path& path, std::span<const std::byte> datagram) {
  std::array<std::byte, 2048> buffer;
  path.drain();
  const auto start = Clock::now();
  path.source.send(datagram, path.to);
  if (path.receive(buffer) == 0) return {};
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

struct Latencies {
  std::vector<double> us;  ///< in order once `sort` was called
  std::size_t lost = 0;

  void add(std::optional<double> one) { one ? us.push_back(*one) : void(++lost); }
  void sort() {
    if (us.empty()) throw std::runtime_error{"nothing came back"};
    std::ranges::sort(us);
  }
  [[nodiscard]] double at(double quantile) const {
    return us[static_cast<std::size_t>(quantile * static_cast<double>(us.size() - 1))];
  }
};

/// One datagram at a time, every `period`, or as soon as the last one came.
inline Latencies one_way(const Network_path& path,
                         std::span<const std::byte> datagram,
                         std::chrono::microseconds period,
                         int count) {
  Latencies result;
  auto next = Clock::now();
  for (int i = 0; i < count; ++i) {
    std::this_thread::sleep_until(next);
    next += period;
    result.add(travel(path, datagram));
  }
  result.sort();
  return result;
}

struct Rate {
  double per_s = 0;
  long lost = 0;  ///< sent and not received
};

/// While one lives, a datagram that wakes the calling thread does not make it take the processor
/// from its sender. Else the scheduler decides by who had more of the processor before: it does so
/// at each datagram of the application and at none of the relay.
class Unobtrusive {
 public:
  Unobtrusive() { set(SCHED_BATCH); }
  ~Unobtrusive() { set(SCHED_OTHER); }
  Unobtrusive(const Unobtrusive&) = delete;
  Unobtrusive& operator=(const Unobtrusive&) = delete;

 private:
  static void set(int policy) {
    const sched_param none{};
    if (sched_setscheduler(0, policy, &none) != 0)
      throw std::runtime_error{std::string{"sched_setscheduler: "} + std::strerror(errno)};
  }
};

/// As fast as it goes without loss: a window of datagrams is on its way at any time.
inline Rate sustained(const Network_path& path,
                      std::span<const std::byte> datagram,
                      std::chrono::milliseconds time) {
  constexpr long window = 32;
  std::array<std::byte, 2048> buffer;
  const Unobtrusive measuring;
  path.drain();
  const auto start = Clock::now();
  for (int i = 0; i < window; ++i)
    path.source.send(datagram, path.to);
  long sent = window;
  long received = 0;
  while (Clock::now() - start < time && path.receive(buffer) != 0) {
    ++received;
    path.source.send(datagram, path.to);
    ++sent;
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const double rate = static_cast<double>(received) / seconds;
  while (received < sent && path.receive(buffer) != 0)
    ++received;
  return {rate, sent - received};
}

}  // namespace bench
