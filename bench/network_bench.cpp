/// The path of a position with the network: a GNSS datagram leaves the source's socket, the
/// Positioning datagram arrives at the subscriber's. The program plays the source and the
/// subscriber with plain sockets; the application is the real executable. The baseline is relay.c
/// over the same sockets.
///
///   bench_network [--quick] APPLICATION RELAY   prints JSON
///
/// Each latency and rate is a list with one figure a round: application and relay are measured in
/// turn, so that what else the machine does meets both alike. First with processors that are kept
/// awake, then with processors that halt when they have nothing to do.
#include <iostream>
#include <map>
#include <memory>

#include "bench/discovery.h"
#include "bench/processes.h"

namespace {

using namespace bench;
using namespace std::chrono_literals;

struct Phase {
  bool awake;
  int rounds;
  int at_10_hz;  ///< datagrams in all, the rounds would be too short to see percentiles
};
struct Plan {
  int starts;
  std::array<Phase, 2> phases;
  int at_1_khz;      ///< datagrams in a round
  int back_to_back;  ///< datagrams in a round
  std::chrono::milliseconds sustained;
  std::chrono::seconds at_rest;
};
constexpr Plan thorough{10, {{{true, 5, 1000}, {false, 3, 300}}}, 1000, 5000, 300ms, 10s};
constexpr Plan quick{3, {{{true, 3, 50}, {false, 1, 20}}}, 300, 1000, 100ms, 3s};

struct Programs {
  std::string application;
  std::string relay;
};

/// Sends positions to the application until one is published; its bytes.
std::size_t first_position(const Socket& source,
                           const Socket& subscriber,
                           const sockaddr_in& client,
                           std::span<const std::byte> datagram) {
  std::array<std::byte, 2048> buffer;
  const auto deadline = Clock::now() + 5s;
  while (Clock::now() < deadline) {
    source.send(datagram, client);
    const auto again = Clock::now() + 5ms;
    while (Clock::now() < again) {
      if (const auto size = subscriber.receive(buffer, nullptr, MSG_DONTWAIT); size != 0) {
        return size;
      }
    }
  }
  throw std::runtime_error{"the application does not publish"};
}

/// Application and relay in one network, on one processor, with a source and a subscriber.
class Bed {
 public:
  Bed(std::string network,
      const Addresses& at,
      const Programs& programs,
      const Place& place,
      bool processor_each)
      : network_{std::move(network)},
        processor_each_{processor_each},
        source_{endpoint(at.own, source_port)},
        subscriber_{endpoint(at.own, subscriber_port)},
        discovery_{at},
        application_{programs.application, at, place},
        paths_{
            {{"application", {source_, subscriber_, discovery_.wait(), processor_each}},
             {"relay", {source_, subscriber_, endpoint(at.relay, source_port), processor_each}}}},
        bytes_out_{first_position(source_, subscriber_, paths_[0].second.to, datagram)},
        relay_{{programs.relay, at.relay, std::to_string(source_port), at.own,
                std::to_string(subscriber_port), std::to_string(bytes_out_)},
               {},
               place} {
    (void)first_position(source_, subscriber_, paths_[1].second.to, datagram);
    for (const auto& [name, path] : paths_)
      (void)one_way(path, datagram, 0us, 1000);
  }

  [[nodiscard]] pid_t application() const { return application_.pid(); }
  [[nodiscard]] std::size_t bytes_out() const { return bytes_out_; }
  [[nodiscard]] std::size_t paths() const { return paths_.size(); }

  void round(const Plan& plan) {
    // Who comes second comes first the next time.
    first_ = 1 - first_;
    for (const auto index : {first_, 1 - first_}) {
      const auto& [name, path] = paths_[index];
      note(name, "1 kHz", one_way(path, datagram, 1ms, plan.at_1_khz));
      note(name, "back to back", one_way(path, datagram, 0us, plan.back_to_back));
      const auto rate = sustained(path, datagram, plan.sustained);
      results_[name]["sustained"]["per_s"].push_back(rate.per_s);
      results_[name]["sustained"]["lost"].push_back(rate.lost);
    }
  }
  void one_at_10_hz(std::size_t index) {
    const auto& [name, path] = paths_[index];
    at_10_hz_[name].add(travel(path, datagram));
  }
  /// Since the last time.
  [[nodiscard]] nlohmann::json take_results() {
    for (auto& [name, latencies] : std::exchange(at_10_hz_, {})) {
      auto sorted = latencies;
      sorted.sort();
      note(name, "10 Hz", sorted);
    }
    auto result = std::exchange(results_, {});
    result["network"] = network_;
    result["processors"] = processor_each_ ? "a processor each" : "one processor";
    return result;
  }

  static inline const std::vector<std::byte> datagram = gnss_datagram();

 private:
  void note(const std::string& name, const char* rate, const Latencies& latencies) {
    auto& result = results_[name][rate];
    result["p50_us"].push_back(latencies.at(0.5));
    result["p99_us"].push_back(latencies.at(0.99));
    result["p99.9_us"].push_back(latencies.at(0.999));
    result["lost"].push_back(latencies.lost);
  }

  const std::string network_;
  const bool processor_each_;
  const Socket source_;
  const Socket subscriber_;
  Discovery discovery_;
  const Application application_;
  const std::array<std::pair<std::string, Network_path>, 2> paths_;
  std::size_t first_ = 1;
  const std::size_t bytes_out_;
  const Child relay_;
  std::map<std::string, Latencies> at_10_hz_;
  nlohmann::json results_;
};

/// Milliseconds from the start of the process to its first offer on the wire, and to the first
/// position that a subscriber gets from a source that sends as soon as it can.
nlohmann::json starts(const std::string& program,
                      int count,
                      const Application::Change& change = {}) {
  const auto at = loopback();
  nlohmann::json result;
  for (int i = 0; i < count; ++i) {
    const Socket source{endpoint(at.own, source_port)};
    const Socket subscriber{endpoint(at.own, subscriber_port)};
    Discovery discovery{at};
    const Application application{program, at, {}, change};
    const auto note = [&](const char* name, Clock::time_point when) {
      result[name].push_back(
          std::chrono::duration<double, std::milli>(when - application.started()).count());
    };
    (void)first_position(source, subscriber, discovery.wait(), Bed::datagram);
    note("to_first_position_ms", Clock::now());
    note("to_offer_ms", *discovery.first_offer());
  }
  return result;
}

/// 1 percent is a hundredth of one processor.
double percent(double seconds, Clock::duration time) {
  return 100 * seconds / std::chrono::duration<double>(time).count();
}

/// All paths of all beds at 10 Hz at the same time, one after the other.
void at_10_hz(const std::vector<std::unique_ptr<Bed>>& beds, int times) {
  std::vector<std::pair<Bed*, std::size_t>> all;
  for (const auto& bed : beds) {
    for (std::size_t index = 0; index < bed->paths(); ++index)
      all.emplace_back(bed.get(), index);
  }
  auto next = Clock::now();
  for (int i = 0; i < times; ++i) {
    for (const auto& [bed, index] : all) {
      std::this_thread::sleep_until(next);
      next += std::chrono::nanoseconds{100ms} / all.size();
      bed->one_at_10_hz(index);
    }
  }
}

nlohmann::json run(const Plan& plan, const Programs& programs) {
  nlohmann::json result;
  std::optional<Cable> cable;
  try {
    cable.emplace();
  } catch (const std::exception& error) {
    result["no_namespaces"] = error.what();
  }
  result["start"]["no_delay"] = starts(programs.application, plan.starts, [](auto& manifest) {
    manifest["serviceDiscovery"]["initialDelayMinMs"] = 0;
    manifest["serviceDiscovery"]["initialDelayMaxMs"] = 0;
  });
  result["start"]["delivered"] = starts(programs.application, plan.starts, [&](auto& manifest) {
    result["start"]["delivered_delay_max_ms"] = manifest["serviceDiscovery"]["initialDelayMaxMs"];
  });

  prctl(PR_SET_TIMERSLACK, 1);
  const auto cpus = processors();
  run_on(cpus.at(0));
  std::vector<std::unique_ptr<Bed>> beds;
  for (std::size_t i = 0; i < std::min<std::size_t>(cpus.size(), 2); ++i) {
    const int number = static_cast<int>(i);
    beds.push_back(
        std::make_unique<Bed>("loopback", loopback(number), programs, Place{cpus[i], {}}, i == 1));
    if (cable) {
      beds.push_back(std::make_unique<Bed>("two namespaces", Cable::addresses(number), programs,
                                           Place{cpus[i], cable->vehicle()}, i == 1));
    }
  }
  const pid_t one = beds.front()->application();
  result["bytes"] = {{"in", Bed::datagram.size()}, {"out", beds.front()->bytes_out()}};

  std::this_thread::sleep_for(1s);
  result["rest"]["resident_kib"] = resident_kib(one);
  double cpu = cpu_seconds(one);
  auto begin = Clock::now();
  std::this_thread::sleep_for(plan.at_rest);
  result["rest"]["cpu_percent"] = percent(cpu_seconds(one) - cpu, Clock::now() - begin);

  for (const auto& phase : plan.phases) {
    std::optional<Awake> awake;
    if (phase.awake) awake.emplace(cpus);
    cpu = cpu_seconds(one);
    begin = Clock::now();
    at_10_hz(beds, phase.at_10_hz);
    result["10 Hz"]["cpu_percent"] = percent(cpu_seconds(one) - cpu, Clock::now() - begin);
    for (int round = 0; round < phase.rounds; ++round) {
      for (const auto& bed : beds)
        bed->round(plan);
    }
    for (const auto& bed : beds) {
      auto measured = bed->take_results();
      measured["awake"] = phase.awake;
      result["paths"].push_back(std::move(measured));
    }
  }
  result["after"]["resident_kib"] = resident_kib(one);
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  const bool short_run = !arguments.empty() && arguments.front() == "--quick";
  if (arguments.size() != (short_run ? 3U : 2U)) {
    std::cerr << "usage: bench_network [--quick] APPLICATION RELAY\n";
    return 2;
  }
  try {
    const Programs programs{arguments[arguments.size() - 2], arguments.back()};
    std::cout << run(short_run ? quick : thorough, programs).dump(2) << "\n";
  } catch (const std::exception& error) {
    std::cerr << "bench_network: " << error.what() << "\n";
    return 1;
  }
  return 0;
}
