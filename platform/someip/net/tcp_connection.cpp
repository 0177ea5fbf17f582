#include "platform/someip/net/tcp_connection.h"

#include <netinet/tcp.h>
#include <sys/socket.h>

#include <string>
#include <utility>

#include "platform/someip/net/udp_socket.h"

namespace someip {

namespace {

constexpr std::chrono::seconds cookie_period{10};
/// A peer that does not acknowledge data for this time loses the connection. So does a silent peer
/// that does not answer three probes.
constexpr int unacknowledged_limit_ms = 5000;
constexpr int idle_before_probe_s = 5;
constexpr int probe_period_s = 2;
constexpr int probes = 3;

void set(int descriptor, int level, int name, int value) {
  static_cast<void>(::setsockopt(descriptor, level, name, &value, sizeof value));
}

Endpoint local_of(int descriptor) {
  Socket_address address;
  socklen_t size = Socket_address::capacity();
  return ::getsockname(descriptor, address.data(), &size) == 0 ? address.endpoint() : Endpoint{};
}

}  // namespace

Tcp_connection::Tcp_connection(boost::asio::ip::tcp::socket socket,
                               const Endpoint& peer,
                               bool opened_here,
                               const Limits& limits,
                               Handler& handler,
                               Workers& workers,
                               Counters& counters,
                               Log& log)
    : Byte_stream(std::move(socket), limits, workers, counters),
      opened_here_(opened_here),
      handler_(handler),
      log_(log),
      local_(local_of(descriptor())),
      peer_(peer),
      established_(std::chrono::steady_clock::now()),
      reader_(limits.message_bytes) {
  const int socket_descriptor = descriptor();
  set(socket_descriptor, IPPROTO_TCP, TCP_NODELAY, 1);  // someip_325
  set(socket_descriptor, SOL_SOCKET, SO_KEEPALIVE, 1);
  set(socket_descriptor, IPPROTO_TCP, TCP_KEEPIDLE, idle_before_probe_s);
  set(socket_descriptor, IPPROTO_TCP, TCP_KEEPINTVL, probe_period_s);
  set(socket_descriptor, IPPROTO_TCP, TCP_KEEPCNT, probes);
  set(socket_descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT, unacknowledged_limit_ms);
}

void Tcp_connection::ended(const char* why, End end) {
  if (end != End::finished) {
    counters_.tcp_lost.add();
    log_.limited(Log_level::info, "tcp", "connection with " + to_string(peer_) + " ended: " + why);
  }
  handler_.lost(self());
}

void Tcp_connection::take(Bytes received) {
  reader_.append(received);
  const std::size_t resynchronisations = reader_.resynchronisations();
  Tasks tasks;
  while (const auto message = reader_.next()) {
    if (message->header.segmented()) {
      counters_.dropped_segments.add();  // a stream needs none
      continue;
    }
    Buffer copy = Buffer::copy_of(message->payload);
    const Bytes payload(copy.data(), message->payload.size());
    handler_.received({message->header, payload, std::move(copy)}, self(), tasks);
  }
  for (auto& task : tasks) {
    workers_.post([task = std::move(task)] { task->run(); });
  }
  if (reader_.resynchronisations() == resynchronisations) return;
  counters_.tcp_resynchronised.add(reader_.resynchronisations() - resynchronisations);
  counters_.dropped_malformed.add();
  log_.limited(Log_level::warning, "resynchronised",
               "malformed SOME/IP stream from " + to_string(peer_) + ": skipped to a magic cookie");
}

void Tcp_connection::send(const Header& header, Bytes payload) {
  const Header_bytes head = header_bytes(header, payload.size());
  std::vector<std::byte> bytes;
  bytes.reserve(head.size() + payload.size());
  bytes.insert(bytes.end(), head.begin(), head.end());
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  enqueue_with_cookie(std::move(bytes));
}

void Tcp_connection::probe() {
  {
    const std::lock_guard lock(cookie_mutex_);
    last_cookie_ = {};
  }
  enqueue_with_cookie({});
}

void Tcp_connection::enqueue_with_cookie(std::vector<std::byte> bytes) {
  const std::lock_guard lock(cookie_mutex_);
  const Time now = std::chrono::steady_clock::now();
  if (last_cookie_ == Time{} || now - last_cookie_ >= cookie_period) {
    // Inserts now and then a boundary that a listener can find (someip_594).
    const Header_bytes cookie = magic_cookie(opened_here_);
    bytes.insert(bytes.begin(), cookie.begin(), cookie.end());
    last_cookie_ = now;
  }
  enqueue(std::move(bytes));
}

}  // namespace someip
