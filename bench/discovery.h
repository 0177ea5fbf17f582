/// What the source and the subscriber of the benchmarks say in service discovery.
#pragma once

#include <atomic>
#include <boost/asio/ip/address.hpp>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/wire.h"
#include "platform/someip/discovery/discovery_message.h"

namespace bench {

inline someip::Option udp_option(const std::string& address, std::uint16_t port) {
  return someip::Option::unicast({boost::asio::ip::make_address(address), port},
                                 someip::udp_protocol);
}

inline someip::Entry offer_of(std::uint16_t service,
                              std::uint16_t instance,
                              std::uint8_t major_version,
                              std::uint32_t ttl) {
  someip::Entry entry;
  entry.type = someip::Entry_type::offer_service;
  entry.service = service;
  entry.instance = instance;
  entry.major_version = major_version;
  entry.ttl = ttl;
  return entry;
}
inline someip::Entry subscription(std::uint16_t instance,
                                  std::uint8_t major_version,
                                  std::uint32_t ttl) {
  auto entry = offer_of(positioning_service, instance, major_version, ttl);
  entry.type = someip::Entry_type::subscribe;
  entry.event_group = 1;
  return entry;
}

/// Offers GNSS and acknowledges the application's subscription; subscribes to Positioning, once for
/// each of the ports.
class Discovery {
 public:
  explicit Discovery(Addresses at, std::vector<std::uint16_t> subscriber_ports = {subscriber_port})
      : at_{std::move(at)},
        ports_{std::move(subscriber_ports)},
        unicast_{endpoint(at_.own, at_.discovery_port)},
        group_{endpoint(at_.group, at_.discovery_port)} {
    group_.join(at_.group, at_.own);
    unicast_.send_multicast_from(at_.own);
    threads_.emplace_back([this] { offer(); });
    threads_.emplace_back([this] { listen(unicast_); });
    threads_.emplace_back([this] { listen(group_); });
  }
  ~Discovery() {
    {
      const std::lock_guard lock{mutex_};
      stop_ = true;
    }
    stopped_.notify_one();
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
      std::this_thread::sleep_for(std::chrono::milliseconds{1});
    }
    throw std::runtime_error{"the application did not subscribe, or did not acknowledge"};
  }
  /// When the application's first offer of Positioning came.
  [[nodiscard]] std::optional<Clock::time_point> first_offer() {
    const std::lock_guard lock{mutex_};
    return first_offer_;
  }

 private:
  void add_offer(someip::Discovery_writer& writer) const {
    (void)writer.add(offer_of(gnss_service, 1, 3, 30), {udp_option(at_.own, source_port)});
  }
  void offer() {
    const auto group = endpoint(at_.group, at_.discovery_port);
    for (std::uint16_t session = 1; !stop_; ++session) {
      someip::Discovery_writer writer;
      add_offer(writer);
      unicast_.send(writer.message(session, true), group);
      std::unique_lock lock{mutex_};
      stopped_.wait_for(lock, std::chrono::milliseconds{500}, [this] { return stop_.load(); });
    }
  }
  void listen(const Socket& socket) {
    std::array<std::byte, 2048> buffer;
    while (!stop_) {
      sockaddr_in from{};
      const auto size = socket.receive(buffer, &from);
      if (size <= someip::header_size ||
          from.sin_addr.s_addr != endpoint(at_.application, 0).sin_addr.s_addr) {
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
      if (entry.type == someip::Entry_type::find_service && entry.service == gnss_service) {
        add_offer(answer);
      } else if (entry.type == someip::Entry_type::subscribe && entry.service == gnss_service &&
                 entry.ttl != 0) {
        auto ack = entry;
        ack.type = someip::Entry_type::subscribe_ack;
        (void)answer.add(ack, {});
        const auto client = message.options_of(entry, true).udp;
        if (client && entry.event_group == 1) {
          const std::lock_guard lock{mutex_};
          client_ = endpoint(client->address.to_string(), client->port);
        }
      } else if (entry.type == someip::Entry_type::offer_service &&
                 entry.service == positioning_service && entry.ttl != 0) {
        const auto subscribe = subscription(entry.instance, entry.major_version, 30);
        for (const auto port : ports_) {
          if (answer.add(subscribe, {udp_option(at_.own, port)})) continue;
          send(answer, from);
          answer = {};
          (void)answer.add(subscribe, {udp_option(at_.own, port)});
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

  const Addresses at_;
  const std::vector<std::uint16_t> ports_;
  Socket unicast_;
  Socket group_;
  std::atomic<bool> stop_{false};
  std::condition_variable stopped_;
  std::atomic<std::uint16_t> unicast_session_{0};
  std::mutex mutex_;  ///< guards the members below
  std::optional<sockaddr_in> client_;
  std::size_t acknowledged_ = 0;
  std::optional<Clock::time_point> first_offer_;
  std::vector<std::thread> threads_;
};

}  // namespace bench
