/// What more of something costs the application: subscribers, services that others offer, and
/// floods that an attacker makes. As bench_network, with plain sockets around the real executable.
/// With two processors the application has one and everything else the other.
///
///   bench_growth [--quick] APPLICATION   prints JSON
#include <iostream>
#include <map>
#include <memory>

#include "bench/discovery.h"
#include "bench/processes.h"

namespace {

using namespace bench;
using namespace std::chrono_literals;

const Addresses at = loopback();
const std::string attacker_address = test::address(66);
constexpr std::uint16_t attacker_port = 31500;
constexpr std::uint16_t first_subscriber_port = 30700;
constexpr std::uint16_t positioning_port = 30511;
constexpr std::uint16_t satellites_event = 0x8003;

struct Setup {
  std::string program;
  Place place;
  bool polls;  ///< see Network_path
  int positions = 2000;
  int rounds = 5;
  int under_flood = 1500;  ///< positions in a round
};

/// Microseconds of processor time for each of `count` positions, one after the other.
double cost_of_a_position(pid_t application, const Network_path& path, int count) {
  const auto datagram = gnss_datagram();
  (void)one_way(path, datagram, 0us, count / 10);
  const double before = cpu_seconds(application);
  (void)one_way(path, datagram, 500us, count);
  return (cpu_seconds(application) - before) * 1e6 / count;
}

nlohmann::json by_subscribers(const Setup& setup) {
  nlohmann::json rows;
  for (const std::size_t count : {1U, 4U, 16U, 64U, 256U}) {
    const Socket source{endpoint(at.own, source_port)};
    std::vector<std::uint16_t> ports;
    std::vector<std::unique_ptr<Socket>> subscribers;
    for (std::size_t i = 0; i < count; ++i) {
      ports.push_back(static_cast<std::uint16_t>(first_subscriber_port + i));
      subscribers.push_back(std::make_unique<Socket>(endpoint(at.own, ports.back())));
    }
    Discovery discovery{at, ports};
    const Application application{setup.program, at, setup.place, [](auto& manifest) {
                                    manifest["limits"]["subscribersPerEventGroup"] = 512;
                                    manifest["limits"]["subscribersPerAddress"] = 512;
                                  }};
    const auto client = discovery.wait();
    rows.push_back(
        {{"subscribers", count},
         {"us_per_position",
          cost_of_a_position(application.pid(), {source, *subscribers.back(), client, setup.polls},
                             setup.positions)}});
  }
  return rows;
}

/// Everything that the attacker sends comes from here.
class Attacker {
 public:
  Attacker() { socket_.send_multicast_from(attacker_address); }

  void offer(std::uint32_t first, std::uint32_t count, const sockaddr_in& to) {
    someip::Discovery_writer writer;
    for (std::uint32_t i = first; i < first + count; ++i) {
      const auto service = static_cast<std::uint16_t>(0x3000 + i % 0xC000);
      const auto instance = static_cast<std::uint16_t>(1 + i / 0xC000 % 0xFFFE);
      (void)writer.add(offer_of(service, instance, 1, someip::endless_ttl),
                       {udp_option(attacker_address, 4000)});
    }
    send(writer, to);
  }
  void subscribe(std::uint16_t port, const sockaddr_in& to) {
    someip::Discovery_writer writer;
    (void)writer.add(subscription(1, 3, 3), {udp_option(attacker_address, port)});
    send(writer, to);
  }
  void first_segment(const sockaddr_in& to) {
    someip::Header header;
    header.service = gnss_service;
    header.method = satellites_event;
    header.interface_version = 3;
    header.type = 0x22;
    header.session = ++session_;
    std::array<std::byte, 4 + 1392> segment{};
    segment[3] = std::byte{1};  // offset 0, more follow
    const auto head = someip::header_bytes(header, segment.size());
    std::vector<std::byte> datagram{head.begin(), head.end()};
    datagram.insert(datagram.end(), segment.begin(), segment.end());
    socket_.send(datagram, to);
  }
  void garbage(std::size_t number, const sockaddr_in& to) {
    static constexpr std::array<std::size_t, 6> sizes{0, 1, 15, 16, 200, 1400};
    std::array<std::byte, 1400> bytes;
    bytes.fill(static_cast<std::byte>(number * 37));
    socket_.send(std::span{bytes}.first(sizes[number % sizes.size()]), to);
  }

 private:
  void send(const someip::Discovery_writer& writer, const sockaddr_in& to) {
    socket_.send(writer.message(++session_, true), to);
  }

  Socket socket_{endpoint(attacker_address, attacker_port)};
  std::uint16_t session_ = 0;
};

nlohmann::json by_offers(const Setup& setup) {
  const Socket source{endpoint(at.own, source_port)};
  const Socket subscriber{endpoint(at.own, subscriber_port)};
  Discovery discovery{at};
  const Application application{setup.program, at, setup.place, [](auto& manifest) {
                                  manifest["limits"]["remoteInstances"] = 20'000;
                                }};
  const auto client = discovery.wait();
  const auto group = endpoint(at.group, at.discovery_port);
  constexpr std::uint32_t in_a_message = 20;
  Attacker others;
  nlohmann::json rows;
  std::uint32_t offered = 0;
  for (const std::uint32_t total : {20U, 100U, 1000U, 10'000U}) {
    for (; offered < total; offered += in_a_message) {
      others.offer(offered, in_a_message, group);
      std::this_thread::sleep_for(200us);
    }
    // Once more what is known already, as services repeat their offers: its cost by their number.
    constexpr std::uint32_t again = 2000;
    const double before = cpu_seconds(application.pid());
    for (std::uint32_t i = 0; i < again; i += in_a_message) {
      others.offer(i % total, in_a_message, group);
      std::this_thread::sleep_for(200us);
    }
    std::this_thread::sleep_for(100ms);
    const double cost = (cpu_seconds(application.pid()) - before) * 1e6 / again;
    rows.push_back(
        {{"offered", total},
         {"us_per_offer", cost},
         {"us_per_position",
          cost_of_a_position(application.pid(), {source, subscriber, client, setup.polls},
                             setup.positions)}});
  }
  return rows;
}

/// Calls `one(number)` so many times a second, evenly, until it is destroyed.
class Flood {
 public:
  Flood(int per_second, const std::function<void(std::size_t)>& one)
      : thread_{[this, per_second, one] {
          prctl(PR_SET_TIMERSLACK, 1);
          const auto period = std::chrono::nanoseconds{1s} / per_second;
          auto next = Clock::now();
          for (std::size_t number = 0; !stop_; ++number) {
            one(number);
            next += period;
            std::this_thread::sleep_until(next);
          }
        }} {}
  ~Flood() {
    stop_ = true;
    thread_.join();
  }
  Flood(const Flood&) = delete;
  Flood& operator=(const Flood&) = delete;

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

/// The median over rounds in turn, so that what else the machine does meets all of them.
nlohmann::json under_floods(const Setup& setup) {
  const Socket source{endpoint(at.own, source_port)};
  const Socket subscriber{endpoint(at.own, subscriber_port)};
  Discovery discovery{at};
  const Application application{setup.program, at, setup.place};
  const auto client = discovery.wait();
  const auto discovery_endpoint = endpoint(at.application, at.discovery_port);
  const auto group = endpoint(at.group, at.discovery_port);
  const std::array targets{discovery_endpoint, group, client,
                           endpoint(at.application, positioning_port)};
  Attacker attacker;
  struct Kind {
    std::string name;
    int per_second;
    std::function<void(std::size_t)> one;
  };
  constexpr std::uint32_t in_a_message = 20;
  const std::vector<Kind> floods{
      {"undisturbed", 0, nullptr},
      {"garbage", 10'000, [&](std::size_t n) { attacker.garbage(n, targets[n % targets.size()]); }},
      {"subscribers", 1000,
       [&](std::size_t n) {
         attacker.subscribe(static_cast<std::uint16_t>(10'000 + n % 1000), discovery_endpoint);
       }},
      {"segments", 1000, [&](std::size_t) { attacker.first_segment(client); }},
      {"offers", 500,
       [&](std::size_t n) {
         attacker.offer(static_cast<std::uint32_t>(n * in_a_message % 1'000'000), in_a_message,
                        group);
       }},
  };
  const auto datagram = gnss_datagram();
  std::map<std::string, std::vector<double>> p99;
  std::size_t lost = 0;
  for (int round = 0; round < setup.rounds; ++round) {
    for (const auto& [name, per_second, one] : floods) {
      std::optional<Flood> flood;
      if (one) flood.emplace(per_second, one);
      const auto latencies =
          one_way({source, subscriber, client}, datagram, 1ms, setup.under_flood);
      p99[name].push_back(latencies.at(0.99));
      lost += latencies.lost;
    }
  }
  nlohmann::json result{{"lost", lost}, {"resident_kib", resident_kib(application.pid())}};
  for (auto& [name, values] : p99) {
    std::ranges::sort(values);
    result["p99_us"][name] = values[values.size() / 2];
  }
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  const bool quick = !arguments.empty() && arguments.front() == "--quick";
  if (arguments.size() != (quick ? 2U : 1U)) {
    std::cerr << "usage: bench_growth [--quick] APPLICATION\n";
    return 2;
  }
  try {
    std::optional<Cable> own_network;
    try {
      own_network.emplace();
    } catch (const std::exception&) {
      // Then on the loopback device that everybody shares.
    }
    const auto cpus = processors();
    run_on(cpus.at(0));
    Setup setup{arguments.back(), {cpus.back(), {}}, cpus.size() > 1};
    if (quick) {
      setup.positions = 500;
      setup.rounds = 3;
      setup.under_flood = 500;
    }
    nlohmann::json result;
    result["subscribers"] = by_subscribers(setup);
    result["offers"] = by_offers(setup);
    result["floods"] = under_floods(setup);
    std::cout << result.dump(2) << "\n";
  } catch (const std::exception& error) {
    std::cerr << "bench_growth: " << error.what() << "\n";
    return 1;
  }
  return 0;
}
