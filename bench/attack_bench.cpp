/// What a byte from a peer costs: processor time for each byte of the most expensive messages that
/// anyone can send, headers included. Ends with 1 when a row is above the bound. A runtime in this
/// process is the victim; an attacker's sockets lie around it.
#include <benchmark/benchmark.h>

#include <array>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "bench/discovery.h"
#include "binding/codec.h"
#include "clients/gnss_records.h"
#include "platform/linux/com/make_runtime.h"
#include "platform/someip/wire/stream_reader.h"
#include "tests/com/test_network.h"

namespace {

using namespace bench;
using Datagram = std::vector<std::byte>;

constexpr double most_ns_per_byte = 200;
/// What a datagram takes of an Ethernet line: with headers, padding, check sum, preamble and gap.
constexpr std::size_t on_the_line(std::size_t datagram) {
  constexpr std::size_t headers = 14 + 20 + 8;
  return std::max<std::size_t>(headers + datagram, 60) + 24;
}
constexpr std::size_t longest_datagram = 65'000;

double seconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

void set_bytes(benchmark::State& state, std::size_t bytes) {
  using benchmark::Counter;
  state.counters["ns_per_byte"] =
      Counter(static_cast<double>(bytes) * 1e-9, Counter::kIsRate | Counter::kInvert);
}

// --- the victim --------------------------------------------------------------------------------

const std::string victim_address = test::address(1);
constexpr std::uint16_t discovery_port = 30490;
constexpr std::uint16_t service_port = 31001;
constexpr std::uint16_t event_port = 4000;
constexpr std::uint16_t service = 0x1111;

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
const std::string attacker_address = test::address(1, 1);

/// Provides an instance of the service, knows as many others and has as many subscribers as it
/// takes, and has subscribed to the attacker's.
class Victim {
 public:
  Victim() {
    for (int number = 1; number < 128; ++number)
      peers_.push_back(std::make_unique<Peer>(number));
    provider_->set_method_handler(1, [](tq::com::Payload) { return tq::com::Response{}; });
    provider_->update_field(0x8002, test::bytes("value"));
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

  static double processor_time() {
    return seconds(CLOCK_PROCESS_CPUTIME_ID) - seconds(CLOCK_THREAD_CPUTIME_ID);
  }

 private:
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

// --- what is sent ------------------------------------------------------------------------------

/// As many messages in one datagram as fit.
Datagram filled(const std::function<Datagram()>& message) {
  Datagram datagram;
  for (auto one = message(); datagram.size() + one.size() <= longest_datagram; one = message())
    datagram.insert(datagram.end(), one.begin(), one.end());
  return datagram;
}

/// A discovery message as the writer does not make them: any number of entries for few options.
Datagram discovery_message(std::uint16_t session,
                           const std::vector<someip::Entry>& entries,
                           const std::vector<Datagram>& options) {
  someip::Discovery_writer one;
  Datagram body(8);
  for (const auto& entry : entries) {
    Datagram bytes(16);
    someip::store8(bytes.data(), static_cast<std::uint8_t>(entry.type));
    someip::store8(bytes.data() + 1, entry.runs[0].index);
    someip::store8(bytes.data() + 2, entry.runs[1].index);
    someip::store8(bytes.data() + 3,
                   static_cast<std::uint8_t>((entry.runs[0].count << 4) | entry.runs[1].count));
    someip::store16(bytes.data() + 4, entry.service);
    someip::store16(bytes.data() + 6, entry.instance);
    someip::store8(bytes.data() + 8, entry.major_version);
    someip::store24(bytes.data() + 9, entry.ttl);
    if (entry.about_event_group()) {
      someip::store16(bytes.data() + 12, entry.flags);
      someip::store16(bytes.data() + 14, entry.event_group);
    } else {
      someip::store32(bytes.data() + 12, entry.minor_version);
    }
    body.insert(body.end(), bytes.begin(), bytes.end());
  }
  someip::store8(body.data(), 0x60);
  someip::store32(body.data() + 4, static_cast<std::uint32_t>(body.size() - 8));
  Datagram all(4);
  for (const auto& option : options)
    all.insert(all.end(), option.begin(), option.end());
  someip::store32(all.data(), static_cast<std::uint32_t>(all.size() - 4));
  body.insert(body.end(), all.begin(), all.end());
  someip::Header header;
  header.service = someip::discovery_service;
  header.method = someip::discovery_method;
  header.session = session;
  header.interface_version = 1;
  header.type = 2;
  const auto head = someip::header_bytes(header, body.size());
  Datagram message(head.begin(), head.end());
  message.insert(message.end(), body.begin(), body.end());
  return message;
}

Datagram ipv4_option(std::uint8_t type, std::uint32_t address, std::uint16_t port) {
  Datagram bytes(12);
  someip::store16(bytes.data(), 9);
  someip::store8(bytes.data() + 2, type);
  someip::store32(bytes.data() + 4, address);
  someip::store8(bytes.data() + 9, someip::udp_protocol);
  someip::store16(bytes.data() + 10, port);
  return bytes;
}
const auto network_number = 0x7F000000U + (static_cast<std::uint32_t>(test::network()) << 16U);
const std::uint32_t attacker_number = network_number + 0x101;

someip::Entry entry_of(someip::Entry_type type,
                       std::uint16_t instance,
                       std::uint32_t ttl = 0xFFFF) {
  auto entry = offer_of(service, instance, 1, ttl);
  entry.type = type;
  entry.minor_version = someip::any_minor_version;
  entry.event_group = 1;
  if (entry.about_event_group()) entry.flags = someip::Entry::initial_data_flag;
  return entry;
}

Datagram message(std::uint16_t of,
                 std::uint16_t method,
                 std::uint8_t type,
                 std::uint16_t session,
                 const Datagram& payload = {}) {
  someip::Header header;
  header.service = of;
  header.method = method;
  header.session = session;
  header.interface_version = 1;
  header.type = type;
  const auto head = someip::header_bytes(header, payload.size());
  Datagram bytes(head.begin(), head.end());
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  return bytes;
}

/// One row: datagrams in the order in which they are sent again and again.
struct Attack {
  const char* name;
  std::uint16_t port;
  std::function<Datagram(Victim&, std::uint32_t number)> make;
};

using someip::Entry_type;

/// One of the eight instances that the attacker has offered.
std::uint16_t of_attacker(std::size_t number) {
  return static_cast<std::uint16_t>(2 + 127 * (number % 8));
}

std::vector<someip::Entry> entries(std::size_t count,
                                   const std::function<someip::Entry(std::size_t)>& make) {
  std::vector<someip::Entry> all;
  for (std::size_t i = 0; i < count; ++i)
    all.push_back(make(i));
  return all;
}

const std::vector<Datagram> two_endpoints{ipv4_option(0x04, attacker_number, 4000),
                                          ipv4_option(0x04, attacker_number, 4001)};

const Attack attacks[] = {
    {"finds", discovery_port,
     [](Victim& victim, std::uint32_t) {
       const auto finds = entries(256, [](auto) { return entry_of(Entry_type::find_service, 1); });
       return filled([&] { return discovery_message(victim.next_session(), finds, {}); });
     }},
    {"finds from claimed addresses", discovery_port,
     [](Victim& victim, std::uint32_t number) {
       std::uint32_t address = network_number + number % 4 * 0x4000;
       return filled([&] {
         return discovery_message(victim.next_session(), {entry_of(Entry_type::find_service, 1)},
                                  {ipv4_option(0x24, ++address, discovery_port)});
       });
     }},
    {"offers of known instances, changed", discovery_port,
     [](Victim& victim, std::uint32_t number) {
       const auto offers = entries(256, [&](std::size_t i) {
         auto entry = entry_of(Entry_type::offer_service, of_attacker(i));
         entry.minor_version = 2;
         entry.runs[0] = {static_cast<std::uint8_t>((number + i / 8) % 2), 1};
         return entry;
       });
       return discovery_message(victim.next_session(), offers, two_endpoints);
     }},
    {"one offer, changed", discovery_port,
     [](Victim& victim, std::uint32_t number) {
       auto entry = entry_of(Entry_type::offer_service, of_attacker(0));
       entry.runs[0] = {0, 1};
       return discovery_message(victim.next_session(), {entry},
                                {two_endpoints[number % two_endpoints.size()]});
     }},
    {"offers and stops", discovery_port,
     [](Victim& victim, std::uint32_t) {
       const auto both = entries(256, [&](std::size_t i) {
         auto entry = entry_of(Entry_type::offer_service, of_attacker(0), i % 2);
         entry.runs[0] = {0, 1};
         return entry;
       });
       return filled([&] { return discovery_message(victim.next_session(), both, two_endpoints); });
     }},
    {"subscriptions and stops", discovery_port,
     [](Victim& victim, std::uint32_t) {
       const auto both = entries(256, [&](std::size_t i) {
         auto entry = entry_of(Entry_type::subscribe, 1, i % 2);
         entry.event_group = 2;
         entry.runs[0] = {0, 1};
         return entry;
       });
       return filled([&] { return discovery_message(victim.next_session(), both, two_endpoints); });
     }},
    {"one subscription, then its stop", discovery_port,
     [](Victim& victim, std::uint32_t number) {
       return victim.subscription(1, attacker_address, number % 2 * 0xFFFF);
     }},
    {"one subscription with values", discovery_port,
     [](Victim& victim, std::uint32_t) { return victim.subscription(2); }},
    {"refused subscriptions from claimed addresses", discovery_port,
     [](Victim& victim, std::uint32_t) {
       std::uint32_t address = network_number;
       auto entry = entry_of(Entry_type::subscribe, 9);
       return filled([&] {
         return discovery_message(victim.next_session(), {entry},
                                  {ipv4_option(0x24, ++address, discovery_port)});
       });
     }},
    {"acknowledgements", discovery_port,
     [](Victim& victim, std::uint32_t) {
       const auto acks =
           entries(256, [](auto) { return entry_of(Entry_type::subscribe_ack, of_attacker(0)); });
       return filled([&] { return discovery_message(victim.next_session(), acks, {}); });
     }},
    {"entries with 30 options each", discovery_port,
     [](Victim& victim, std::uint32_t) {
       const auto some = entries(256, [](auto) {
         auto entry = entry_of(Entry_type::offer_service, of_attacker(0));
         entry.runs = {{{0, 15}, {0, 15}}};
         return entry;
       });
       const std::vector options(15, two_endpoints[0]);
       return filled([&] { return discovery_message(victim.next_session(), some, options); });
     }},
    {"options without entries", discovery_port,
     [](Victim& victim, std::uint32_t) {
       const std::vector options(256, Datagram{std::byte{0}, std::byte{0}, std::byte{4}});
       return filled([&] { return discovery_message(victim.next_session(), {}, options); });
     }},
    {"configuration options", discovery_port,
     [](Victim& victim, std::uint32_t) {
       Datagram option(3 + 1 + 1000);
       someip::store16(option.data(), 1001);
       someip::store8(option.data() + 2, 1);
       for (std::size_t i = 4; i + 2 < option.size(); i += 2) {
         option[i] = std::byte{1};
         option[i + 1] = std::byte{'a'};
       }
       option.back() = option[option.size() - 2] = std::byte{0};
       return filled([&] {
         return discovery_message(victim.next_session(), {}, {option, option, option});
       });
     }},
    {"empty discovery messages", discovery_port,
     [](Victim& victim, std::uint32_t) {
       return filled([&] { return discovery_message(victim.next_session(), {}, {}); });
     }},
    {"an empty discovery message", discovery_port,
     [](Victim& victim, std::uint32_t) {
       return discovery_message(victim.next_session(), {}, {});
     }},
    {"a datagram of one byte to discovery", discovery_port,
     [](Victim&, std::uint32_t) { return Datagram(1); }},
    {"a datagram of one byte to a service", service_port,
     [](Victim&, std::uint32_t) { return Datagram(1); }},
    {"requests of an unknown method", service_port,
     [](Victim& victim, std::uint32_t) {
       return filled([&] { return message(service, 0x77, 0x00, victim.next_session()); });
     }},
    {"requests", service_port,
     [](Victim& victim, std::uint32_t) {
       return filled([&] { return message(service, 1, 0x00, victim.next_session()); });
     }},
    {"requests of the value", service_port,
     [](Victim& victim, std::uint32_t) {
       return filled([&] { return message(service, 3, 0x00, victim.next_session()); });
     }},
    {"notifications where none belong", service_port,
     [](Victim&, std::uint32_t) {
       return filled([] { return message(service, 0x8001, 0x02, 1); });
     }},
    {"first segments", service_port,
     [](Victim& victim, std::uint32_t) {
       Datagram segment(4 + 16);
       segment[3] = std::byte{1};
       return filled([&] { return message(service, 1, 0x20, victim.next_session(), segment); });
     }},
    {"trains of two segments", service_port,
     [](Victim& victim, std::uint32_t) {
       Datagram first(4 + 16), second(4 + 1);
       first[3] = std::byte{1};
       second[3] = std::byte{16};
       return filled([&] {
         const auto session = victim.next_session();
         auto both = message(service, 1, 0x20, session, first);
         const auto last = message(service, 1, 0x20, session, second);
         both.insert(both.end(), last.begin(), last.end());
         return both;
       });
     }},
};

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

// --- what is decoded ---------------------------------------------------------------------------

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

// --- streams -----------------------------------------------------------------------------------

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
  const auto decodes = [](const char* name, auto decode, Datagram payload) {
    benchmark::RegisterBenchmark(name, decode, std::move(payload));
  };
  using Positions = std::vector<DT_positions_struct>;
  decodes("empty records", decoding<Positions>, list_of({}));
  decodes("records of one member", decoding<Positions>,
          list_of(repeated({0x20, 1, 0, 0, 0, 7}, 6)));
  decodes("records of members backwards", decoding<Positions>, list_of(backwards()));
  decodes("records of unknown members", decoding<Positions>,
          list_of(repeated({0x0f, 0xff, 0}, 60'000)));
  decodes("records of empty unknown members", decoding<Positions>,
          list_of(repeated({0x50, 0x64, 0}, 60'000)));
  decodes("one member again and again", decoding<Positions>,
          list_of(repeated({0x20, 1, 0, 0, 0, 7}, 60'000)));
  std::map<std::string, std::string> map;
  for (int i = 0; i < 5000; ++i)
    map.emplace(std::to_string(i), "");
  Datagram map_payload;
  binding::encode(map, map_payload);
  decodes("map of strings", decoding<std::map<std::string, std::string>>, map_payload);
  benchmark::RegisterBenchmark("stream of client cookies", stream, cookies({0}, true));
  benchmark::RegisterBenchmark("stream of server cookies", stream, cookies({0}, false));
  benchmark::RegisterBenchmark("stream of torn cookies", stream, repeated({0xff, 0xff, 0}, 65'536));
  benchmark::RegisterBenchmark("stream of ones", stream, repeated({0xff}, 65'536));
  benchmark::RegisterBenchmark("stream of empty messages", stream, message(service, 1, 0, 1));
  Judge judge;
  benchmark::RunSpecifiedBenchmarks(&judge);
  return judge.all_below(most_ns_per_byte) ? 0 : 1;
}
