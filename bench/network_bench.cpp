/// The road of a position with the network: a GNSS datagram leaves the source's socket, the
/// Positioning datagram arrives at the subscriber's. The program plays the source and the
/// subscriber with plain sockets; the application is the real executable. The baseline is relay.c
/// over the same sockets.
///
///   bench_network APPLICATION RELAY   prints JSON
#include <iostream>

#include "bench/Wire.h"

namespace {

using namespace bench;
using namespace std::chrono_literals;

nlohmann::json measure(const Socket& source,
                       const Socket& subscriber,
                       const sockaddr_in& to,
                       const std::vector<std::byte>& datagram) {
  nlohmann::json result;
  const auto note = [&](const char* name, const Latencies& l) {
    result[name] = {{"p50_us", l.p50}, {"p99_us", l.p99}, {"p99.9_us", l.p999}, {"lost", l.lost}};
  };
  (void)one_way(source, subscriber, to, datagram, 1ms, 200);
  note("10 Hz", one_way(source, subscriber, to, datagram, 100ms, 50));
  note("1 kHz", one_way(source, subscriber, to, datagram, 1ms, 5000));
  note("back to back", one_way(source, subscriber, to, datagram, 0us, 20000));
  result["sustained_per_s"] = sustained(source, subscriber, to, datagram, 3s);
  return result;
}

int run(const std::string& application, const std::string& relay) {
  const Socket source{endpoint(own_address, source_port)};
  const Socket subscriber{endpoint(own_address, subscriber_port)};
  const auto datagram = gnss_datagram();
  nlohmann::json result;
  std::size_t bytes_out = 0;
  {
    Discovery discovery;
    const auto started = Clock::now();
    const Application child{application};
    const auto client = discovery.wait();
    std::array<std::byte, 2048> buffer;
    source.send(datagram, client);
    while (bytes_out == 0)
      bytes_out = subscriber.receive(buffer);
    result["start"]["to_offer_ms"] =
        std::chrono::duration<double, std::milli>(*discovery.first_offer() - started).count();
    result["start"]["to_first_position_ms"] =
        std::chrono::duration<double, std::milli>(Clock::now() - started).count();
    std::this_thread::sleep_for(3s);
    result["rest"]["resident_kib"] = resident_kib(child.pid());
    const auto cpu = cpu_seconds(child.pid());
    std::this_thread::sleep_for(10s);
    result["rest"]["cpu_percent"] = (cpu_seconds(child.pid()) - cpu) * 10;
    result["application"] = measure(source, subscriber, client, datagram);
    result["after"]["resident_kib"] = resident_kib(child.pid());
  }
  {
    const Child child{{relay, relay_address, relay_port, own_address,
                       std::to_string(subscriber_port), std::to_string(bytes_out)},
                      {}};
    std::this_thread::sleep_for(200ms);
    result["relay"] = measure(
        source, subscriber,
        endpoint(relay_address, static_cast<std::uint16_t>(std::atoi(relay_port))), datagram);
  }
  result["bytes"] = {{"in", datagram.size()}, {"out", bytes_out}};
  for (const char* rate : {"10 Hz", "1 kHz", "back to back"}) {
    for (const char* quantile : {"p50_us", "p99_us", "p99.9_us"}) {
      result["ratio"][rate][quantile] = result["application"][rate][quantile].get<double>() /
                                        result["relay"][rate][quantile].get<double>();
    }
  }
  result["ratio"]["sustained"] = result["application"]["sustained_per_s"].get<double>() /
                                 result["relay"]["sustained_per_s"].get<double>();
  std::cout << result.dump(2) << "\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: bench_network APPLICATION RELAY\n";
    return 2;
  }
  try {
    return run(argv[1], argv[2]);
  } catch (const std::exception& error) {
    std::cerr << "bench_network: " << error.what() << "\n";
    return 1;
  }
}
