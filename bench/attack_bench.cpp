/// What a byte from a peer costs: processor time for each byte of the most expensive messages that
/// anyone can send, headers included. Ends with 1 when a row is above the bound. A runtime in this
/// process is the victim; an attacker's sockets lie around it.
#include <benchmark/benchmark.h>

#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "bench/attacks.h"
#include "binding/codec.h"
#include "clients/gnss_records.h"
#include "platform/someip/wire/stream_reader.h"

namespace {

using namespace bench;

constexpr double most_ns_per_byte = 200;
/// What a datagram takes of an Ethernet line: with headers, padding, check sum, preamble and gap.
constexpr std::size_t on_the_line(std::size_t datagram) {
  constexpr std::size_t headers = 14 + 20 + 8;
  return std::max<std::size_t>(headers + datagram, 60) + 24;
}

void set_bytes(benchmark::State& state, std::size_t bytes) {
  using benchmark::Counter;
  state.counters["ns_per_byte"] =
      Counter(static_cast<double>(bytes) * 1e-9, Counter::kIsRate | Counter::kInvert);
}

void over_the_network(benchmark::State& state, const Attack& attack, Victim& victim) {
  std::uint32_t number = 0;
  std::size_t bytes = 0;
  for ([[maybe_unused]] auto _ : state) {
    const auto datagram = attack.make(victim, number++);
    const double before = Victim::processor_time();
    victim.send(datagram, attack.port);
    state.SetIterationTime(std::max(Victim::processor_time() - before, 1e-9));
    bytes += on_the_line(datagram.size());
  }
  set_bytes(state, bytes);
}

using lumo::services::gnss::datatypes::DT_positions_struct;

template <class Value>
void decoding(benchmark::State& state, const Datagram& payload) {
  std::size_t bytes = 0;
  for ([[maybe_unused]] auto _ : state) {
    Value value;
    try {
      binding::Cursor cursor{payload};
      binding::decode(cursor, value);
    } catch (const std::exception&) {
    }
    benchmark::DoNotOptimize(value);
    bytes += payload.size();
  }
  set_bytes(state, bytes);
}

void append32(Datagram& bytes, std::size_t value) {
  bytes.resize(bytes.size() + 4);
  someip::store32(bytes.data() + bytes.size() - 4, static_cast<std::uint32_t>(value));
}
void append(Datagram& bytes, const Datagram& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}
/// A list of the same record again and again, 64 KiB long.
Datagram list_of(const Datagram& record) {
  Datagram records;
  while (records.size() + 4 + record.size() <= 65'536) {
    append32(records, record.size());
    append(records, record);
  }
  Datagram payload;
  append32(payload, records.size());
  append(payload, records);
  return payload;
}
Datagram repeated(std::initializer_list<int> bytes, std::size_t size) {
  Datagram all;
  while (all.size() < size) {
    for (const int byte : bytes)
      all.push_back(static_cast<std::byte>(byte));
  }
  return all;
}
/// Every member but in the opposite order.
Datagram backwards() {
  Datagram record;
  binding::for_each_member<DT_positions_struct>([&]<class M>(const M& m) {
    DT_positions_struct one;
    one.*m.pointer = typename M::value_type{};
    Datagram payload;
    binding::encode(std::vector{one}, payload);
    record.insert(record.begin(), payload.begin() + 8, payload.end());
  });
  return record;
}

void stream(benchmark::State& state, const Datagram& chunk) {
  std::size_t bytes = 0;
  someip::Stream_reader reader(std::size_t{256} * 1024);
  for ([[maybe_unused]] auto _ : state) {
    reader.append(chunk);
    while (reader.next()) {
    }
    bytes += chunk.size();
  }
  set_bytes(state, bytes);
}
Datagram cookies(std::initializer_list<int> before, bool from_client) {
  const auto cookie = someip::magic_cookie(from_client);
  Datagram bytes;
  while (bytes.size() < 65'536) {
    append(bytes, repeated(before, before.size()));
    append(bytes, {cookie.begin(), cookie.end()});
  }
  return bytes;
}

/// Prints what others do and remembers the least of each row: the machine has other work too.
class Judge final : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      const auto counter = run.counters.find("ns_per_byte");
      if (run.error_occurred || counter == run.counters.end()) continue;
      const double cost = counter->second.value;
      const auto [row, added] = least_.try_emplace(run.run_name.function_name, cost);
      row->second = std::min(row->second, cost);
    }
    ConsoleReporter::ReportRuns(runs);
  }
  [[nodiscard]] bool all_below(double bound) const {
    bool below = !least_.empty();
    for (const auto& [name, cost] : least_) {
      if (cost < bound) continue;
      std::cout << name << ": " << cost << " ns a byte, more than " << bound << '\n';
      below = false;
    }
    return below;
  }

 private:
  std::map<std::string, double> least_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  Victim victim;
  for (const auto& attack : attacks) {
    benchmark::RegisterBenchmark(attack.name, over_the_network, attack, std::ref(victim))
        ->UseManualTime();
  }
  using Positions = std::vector<DT_positions_struct>;
  benchmark::RegisterBenchmark("empty records", decoding<Positions>, list_of({}));
  benchmark::RegisterBenchmark("records of one member", decoding<Positions>,
                               list_of(repeated({0x20, 1, 0, 0, 0, 7}, 6)));
  benchmark::RegisterBenchmark("records of members backwards", decoding<Positions>,
                               list_of(backwards()));
  benchmark::RegisterBenchmark("records of unknown members", decoding<Positions>,
                               list_of(repeated({0x0f, 0xff, 0}, 60'000)));
  benchmark::RegisterBenchmark("records of empty unknown members", decoding<Positions>,
                               list_of(repeated({0x50, 0x64, 0}, 60'000)));
  benchmark::RegisterBenchmark("one member again and again", decoding<Positions>,
                               list_of(repeated({0x20, 1, 0, 0, 0, 7}, 60'000)));
  std::map<std::string, std::string> map;
  for (int i = 0; i < 5000; ++i)
    map.emplace(std::to_string(i), "");
  Datagram map_payload;
  binding::encode(map, map_payload);
  benchmark::RegisterBenchmark("map of strings", decoding<std::map<std::string, std::string>>,
                               map_payload);
  benchmark::RegisterBenchmark("stream of client cookies", stream, cookies({0}, true));
  benchmark::RegisterBenchmark("stream of server cookies", stream, cookies({0}, false));
  benchmark::RegisterBenchmark("stream of torn cookies", stream, repeated({0xff, 0xff, 0}, 65'536));
  benchmark::RegisterBenchmark("stream of ones", stream, repeated({0xff}, 65'536));
  benchmark::RegisterBenchmark("stream of empty messages", stream, message(service, 1, 0, 1));
  Judge judge;
  benchmark::RunSpecifiedBenchmarks(&judge);
  return judge.all_below(most_ns_per_byte) ? 0 : 1;
}
