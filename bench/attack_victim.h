/// A runtime with many offers and subscribers, and the sockets of an attacker and of other peers.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "bench/discovery.h"
#include "platform/linux/com/make_runtime.h"
#include "tests/com/test_network.h"

namespace bench {

using Datagram = std::vector<std::byte>;

inline const std::string victim_address = test::address(1);
inline constexpr std::uint16_t discovery_port = 30490;
inline constexpr std::uint16_t service_port = 31001;
inline constexpr std::uint16_t event_port = 4000;
inline constexpr std::uint16_t service = 0x1111;

/// One of those who talk to the victim, with an address of its own.
struct Peer {
  explicit Peer(int number)
      : address{test::address(number, 1)},
        discovery{endpoint(address, discovery_port)},
        events{endpoint(address, event_port)} {}
  std::string address;
  Socket discovery;
  Socket events;  ///< nobody reads them
};
inline const std::string attacker_address = test::address(1, 1);

/// Provides an instance of the service, knows as many others and has as many subscribers as it
/// takes, and has subscribed to the attacker's.
class Victim {
 public:
  Victim() {
    for (int number = 1; number < 128; ++number)
      peers_.push_back(std::make_unique<Peer>(number));
    provider_->set_method_handler(1, [](tq::com::Payload) { return tq::com::Response{}; });
    provider_->notify(0x8002, test::bytes("value"));
    provider_->offer();
    offer(2);
    consumer_ = finder_.connect();
    consumer_->subscribe("tick", [](tq::com::Payload) {}, {});
    for (std::uint16_t instance = 3; instance < 1024; ++instance)
      offer(instance);
    for (const auto& peer : peers_) {
      for (const auto group : {std::uint16_t{1}, std::uint16_t{2}})
        send(subscription(group, peer->address), discovery_port, *peer);
    }
  }

  /// From the attacker. Returns once the datagram has been taken from its socket.
  void send(const Datagram& datagram, std::uint16_t port) { send(datagram, port, *peers_.front()); }

  Datagram subscription(std::uint16_t group,
                        const std::string& subscriber = attacker_address,
                        std::uint32_t ttl = 0xFFFF) {
    auto entry = offer_of(service, 1, 1, ttl);
    entry.type = someip::Entry_type::subscribe;
    entry.event_group = group;
    entry.flags = someip::Entry::initial_data_flag;
    someip::Discovery_writer writer;
    (void)writer.add(entry, {udp_option(subscriber, event_port)});
    return writer.message(next_session(), false);
  }
  std::uint16_t next_session() {
    if (++session_ == 0) ++session_;
    return session_;
  }

  /// Seconds of all threads but the calling one.
  static double processor_time() {
    return seconds(CLOCK_PROCESS_CPUTIME_ID) - seconds(CLOCK_THREAD_CPUTIME_ID);
  }

 private:
  static double seconds(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  }
  void offer(std::uint16_t instance) {
    const Peer& peer = *peers_[(instance - 2U) % peers_.size()];
    someip::Discovery_writer writer;
    (void)writer.add(offer_of(service, instance, 1, someip::endless_ttl),
                     {udp_option(peer.address, event_port)});
    send(writer.message(next_session(), false), discovery_port, peer);
  }
  void send(const Datagram& datagram, std::uint16_t port, const Peer& from) const {
    const auto received = [&] { return test::counter(*runtime_, "datagramsReceived"); };
    const auto count = received();
    from.discovery.send(datagram, endpoint(victim_address, port));
    const auto end = Clock::now() + std::chrono::seconds{10};
    while (received() == count) {
      if (Clock::now() > end) throw std::runtime_error{"a datagram was lost"};
      sched_yield();
    }
  }
  static someip::Deployment deployment() {
    auto deployed = test::deployment();
    deployed.services.front().instances.front().tcp_port = service_port;
    return deployed;
  }

  std::uint16_t session_ = 0;
  std::vector<std::unique_ptr<Peer>> peers_;  ///< the first one is the attacker
  std::unique_ptr<tq::com::Runtime> runtime_ = tq::com::make_runtime(deployment(), "server");
  std::unique_ptr<tq::com::Provider> provider_ = runtime_->provide("test::Service", "first");
  test::Finder finder_{*runtime_, "test::Service"};
  std::unique_ptr<tq::com::Consumer> consumer_;
};

}  // namespace bench
