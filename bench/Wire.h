/// The network around the application under test: a source and a subscriber made of plain sockets,
/// the application as a child process, and what they need to find each other.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "binding/codec.h"
#include "clients/GnssRecords.h"
#include "platform/someip/discovery_message.h"
#include "platform/someip/message.h"

namespace bench {

using Clock = std::chrono::steady_clock;

inline constexpr const char* application_address = "127.66.0.10";
inline constexpr const char* own_address = "127.66.0.20";
inline constexpr const char* relay_address = "127.66.0.40";
inline constexpr const char* relay_port = "30501";
inline constexpr const char* group_address = "239.192.66.1";
inline constexpr std::uint16_t discovery_port = 31490;
inline constexpr std::uint16_t source_port = 30501;
inline constexpr std::uint16_t subscriber_port = 30600;
inline constexpr std::uint16_t gnss_service = 0x2A10;
inline constexpr std::uint16_t positioning_service = 0x2A20;
inline constexpr std::uint16_t positions_event = 0x8001;

inline sockaddr_in endpoint(const char* address, std::uint16_t port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_port = htons(port);
  if (inet_pton(AF_INET, address, &result.sin_addr) != 1) throw std::runtime_error{address};
  return result;
}

class Socket {
 public:
  explicit Socket(const sockaddr_in& local) : descriptor_{::socket(AF_INET, SOCK_DGRAM, 0)} {
    const int on = 1;
    setsockopt(descriptor_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    timeval timeout{.tv_sec = 0, .tv_usec = 200'000};
    setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    const int buffer = 4 * 1024 * 1024;
    setsockopt(descriptor_, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
    if (bind(descriptor_, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
      throw std::runtime_error{std::string{"bind: "} + std::strerror(errno)};
    }
  }
  ~Socket() { ::close(descriptor_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  void join(const char* group) {
    ip_mreq request{};
    inet_pton(AF_INET, group, &request.imr_multiaddr);
    inet_pton(AF_INET, own_address, &request.imr_interface);
    setsockopt(descriptor_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request);
  }
  void send_multicast_from(const char* address) {
    in_addr interface {};
    inet_pton(AF_INET, address, &interface);
    setsockopt(descriptor_, IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface);
  }
  void send(std::span<const std::byte> bytes, const sockaddr_in& to) const {
    (void)sendto(descriptor_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                 sizeof to);
  }
  /// Bytes received, 0 after the time-out.
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

class Child {
 public:
  Child(std::vector<std::string> command,
        const std::vector<std::pair<std::string, std::string>>& env)
      : pid_{fork()} {
    if (pid_ != 0) return;
    for (const auto& [name, value] : env)
      setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> arguments;
    for (auto& part : command)
      arguments.push_back(part.data());
    arguments.push_back(nullptr);
    if (std::freopen("/dev/null", "w", stderr) == nullptr) _exit(126);
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  ~Child() {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  [[nodiscard]] pid_t pid() const { return pid_; }

 private:
  pid_t pid_;
};

inline someip::Option udp_option(const char* address, std::uint16_t port) {
  return someip::Option::unicast({boost::asio::ip::make_address(address), port},
                                 someip::udp_protocol);
}

/// Offers GNSS, acknowledges the application's subscription, subscribes to Positioning, once for
/// each of the ports.
class Discovery {
 public:
  explicit Discovery(std::vector<std::uint16_t> subscriber_ports = {subscriber_port})
      : ports_{std::move(subscriber_ports)},
        unicast_{endpoint(own_address, discovery_port)},
        group_{endpoint(group_address, discovery_port)} {
    group_.join(group_address);
    unicast_.send_multicast_from(own_address);
    threads_.emplace_back([this] { offer(); });
    threads_.emplace_back([this] { listen(unicast_); });
    threads_.emplace_back([this] { listen(group_); });
  }
  ~Discovery() {
    stop_ = true;
    for (auto& thread : threads_)
      thread.join();
  }
  Discovery(const Discovery&) = delete;
  Discovery& operator=(const Discovery&) = delete;

  /// Where the application wants its notifications, once all subscriptions stand.
  [[nodiscard]] sockaddr_in wait() {
    const auto deadline = Clock::now() + std::chrono::seconds{10};
    while (Clock::now() < deadline) {
      {
        const std::lock_guard lock{mutex_};
        if (client_ && acknowledged_ >= ports_.size()) return *client_;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds{5});
    }
    throw std::runtime_error{"the application did not subscribe, or did not acknowledge"};
  }
  [[nodiscard]] std::optional<Clock::time_point> first_offer() {
    const std::lock_guard lock{mutex_};
    return first_offer_;
  }

 private:
  void offer() {
    const auto group = endpoint(group_address, discovery_port);
    for (std::uint16_t session = 1; !stop_; ++session) {
      someip::Discovery_writer writer;
      someip::Entry entry;
      entry.type = someip::Entry_type::offer_service;
      entry.service = gnss_service;
      entry.instance = 1;
      entry.major_version = 3;
      entry.ttl = 30;
      (void)writer.add(entry, {udp_option(own_address, source_port)});
      unicast_.send(writer.message(session, true), group);
      for (int i = 0; i < 10 && !stop_; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds{50});
    }
  }
  void listen(const Socket& socket) {
    std::array<std::byte, 2048> buffer;
    while (!stop_) {
      sockaddr_in from{};
      const auto size = socket.receive(buffer, &from);
      if (size <= someip::header_size ||
          from.sin_addr.s_addr != endpoint(application_address, 0).sin_addr.s_addr) {
        continue;
      }
      const auto message = someip::read_discovery_message(
          std::span{buffer}.subspan(someip::header_size, size - someip::header_size), 256);
      if (message) handle(*message, from);
    }
  }
  void handle(const someip::Discovery_message& message, const sockaddr_in& from) {
    someip::Discovery_writer answer;
    for (const auto& entry : message.entries) {
      if (entry.type == someip::Entry_type::subscribe && entry.service == gnss_service &&
          entry.ttl != 0) {
        auto ack = entry;
        ack.type = someip::Entry_type::subscribe_ack;
        (void)answer.add(ack, {});
        const auto client = message.options_of(entry, true).udp;
        if (client && entry.event_group == 1) {
          const std::lock_guard lock{mutex_};
          client_ = endpoint(client->address.to_string().c_str(), client->port);
        }
      } else if (entry.type == someip::Entry_type::offer_service &&
                 entry.service == positioning_service && entry.ttl != 0) {
        someip::Entry subscribe;
        subscribe.type = someip::Entry_type::subscribe;
        subscribe.service = positioning_service;
        subscribe.instance = entry.instance;
        subscribe.major_version = entry.major_version;
        subscribe.event_group = 1;
        subscribe.ttl = 30;
        for (const auto port : ports_) {
          if (answer.add(subscribe, {udp_option(own_address, port)})) continue;
          send(answer, from);
          answer = {};
          (void)answer.add(subscribe, {udp_option(own_address, port)});
        }
        const std::lock_guard lock{mutex_};
        if (!first_offer_) first_offer_ = Clock::now();
      } else if (entry.type == someip::Entry_type::subscribe_ack &&
                 entry.service == positioning_service && entry.ttl != 0) {
        const std::lock_guard lock{mutex_};
        ++acknowledged_;
      }
    }
    if (!answer.empty()) send(answer, from);
  }
  void send(const someip::Discovery_writer& message, const sockaddr_in& to) {
    const auto session = static_cast<std::uint16_t>(++unicast_session_);
    unicast_.send(message.message(session, true), to);
  }

  const std::vector<std::uint16_t> ports_;
  Socket unicast_;
  Socket group_;
  std::atomic<bool> stop_{false};
  std::atomic<std::uint16_t> unicast_session_{0};
  std::mutex mutex_;  ///< guards the members below
  std::optional<sockaddr_in> client_;
  std::size_t acknowledged_ = 0;
  std::optional<Clock::time_point> first_offer_;
  std::vector<std::thread> threads_;
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
  position.positionType = 2;
  position.messageCounter = 7;
  std::vector<std::byte> payload;
  binding::encode(positions, payload);
  someip::Header header;
  header.service = gnss_service;
  header.method = positions_event;
  header.interface_version = 3;
  header.type = static_cast<std::uint8_t>(someip::Message_type::notification);
  const auto bytes = someip::header_bytes(header, payload.size());
  std::vector<std::byte> datagram{bytes.begin(), bytes.end()};
  datagram.insert(datagram.end(), payload.begin(), payload.end());
  return datagram;
}

struct Latencies {
  double p50 = 0, p99 = 0, p999 = 0;
  std::size_t lost = 0;
};

/// One datagram at a time, every `period`.
inline Latencies one_way(const Socket& source,
                         const Socket& subscriber,
                         const sockaddr_in& to,
                         const std::vector<std::byte>& datagram,
                         std::chrono::microseconds period,
                         int count) {
  std::array<std::byte, 2048> buffer;
  std::vector<double> us;
  Latencies result;
  while (subscriber.receive(buffer, nullptr, MSG_DONTWAIT) != 0) {
  }
  auto next = Clock::now();
  for (int i = 0; i < count; ++i) {
    std::this_thread::sleep_until(next);
    next += period;
    const auto start = Clock::now();
    source.send(datagram, to);
    if (subscriber.receive(buffer) == 0) {
      ++result.lost;
    } else {
      us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
  }
  if (us.empty()) throw std::runtime_error{"nothing came back"};
  std::sort(us.begin(), us.end());
  const auto at = [&](double q) {
    return us[static_cast<std::size_t>(q * static_cast<double>(us.size() - 1))];
  };
  result.p50 = at(0.5);
  result.p99 = at(0.99);
  result.p999 = at(0.999);
  return result;
}

/// As fast as it goes without loss: a window of datagrams is on its way at any time.
inline double sustained(const Socket& source,
                        const Socket& subscriber,
                        const sockaddr_in& to,
                        const std::vector<std::byte>& datagram,
                        std::chrono::milliseconds time) {
  constexpr int window = 32;
  std::array<std::byte, 2048> buffer;
  for (int i = 0; i < window; ++i)
    source.send(datagram, to);
  std::size_t count = 0;
  const auto start = Clock::now();
  while (Clock::now() - start < time) {
    if (subscriber.receive(buffer) == 0) {
      for (int i = 0; i < window; ++i)
        source.send(datagram, to);
      continue;
    }
    ++count;
    source.send(datagram, to);
  }
  const double rate =
      static_cast<double>(count) / std::chrono::duration<double>(Clock::now() - start).count();
  while (subscriber.receive(buffer) != 0) {
  }
  return rate;
}

inline long resident_kib(pid_t pid) {
  std::ifstream status{"/proc/" + std::to_string(pid) + "/status"};
  std::string word;
  long kib = 0;
  while (status >> word) {
    if (word == "VmRSS:") status >> kib;
  }
  return kib;
}
/// Of all threads, as the scheduler counts.
inline double cpu_seconds(pid_t pid) {
  double nanoseconds = 0;
  for (const auto& task :
       std::filesystem::directory_iterator{"/proc/" + std::to_string(pid) + "/task"}) {
    double one = 0;
    std::ifstream{task.path() / "schedstat"} >> one;
    nanoseconds += one;
  }
  return nanoseconds / 1e9;
}

/// The application, with a manifest of its own, from the construction on.
class Application {
 public:
  explicit Application(const std::string& program,
                       const std::function<void(nlohmann::json& manifest)>& change = {})
      : folder_{"/tmp/pos-bench-" + std::to_string(getpid())} {
    std::filesystem::create_directories(folder_);
    nlohmann::json manifest = nlohmann::json::parse(std::ifstream{POS_MANIFEST_FILE});
    manifest["serviceDiscovery"]["multicastAddress"] = group_address;
    manifest["serviceDiscovery"]["port"] = discovery_port;
    if (change) change(manifest);
    std::ofstream{folder_ / "manifest.json"} << manifest;
    child_.emplace(std::vector{program}, std::vector<std::pair<std::string, std::string>>{
                                             {"POS_NODE_ADDRESS", application_address},
                                             {"POS_MANIFEST", folder_ / "manifest.json"},
                                             {"POS_STORAGE_DIR", folder_ / "storage"},
                                             {"POS_LOG_LEVEL", "off"}});
  }
  ~Application() {
    child_.reset();
    std::filesystem::remove_all(folder_);
  }
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;
  [[nodiscard]] pid_t pid() const { return child_->pid(); }

 private:
  const std::filesystem::path folder_;
  std::optional<Child> child_;
};

}  // namespace bench
