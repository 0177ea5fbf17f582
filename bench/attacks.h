/// The most expensive datagrams that anyone can send to a runtime.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "bench/attack_victim.h"

namespace bench {

inline constexpr std::size_t longest_datagram = 65'000;

/// As many messages in one datagram as fit.
inline Datagram filled(const std::function<Datagram()>& message) {
  Datagram datagram;
  for (auto one = message(); datagram.size() + one.size() <= longest_datagram; one = message())
    datagram.insert(datagram.end(), one.begin(), one.end());
  return datagram;
}

/// A discovery message as the writer does not make them: any number of entries for few options.
inline Datagram discovery_message(std::uint16_t session,
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

inline Datagram ipv4_option(std::uint8_t type, std::uint32_t address, std::uint16_t port) {
  Datagram bytes(12);
  someip::store16(bytes.data(), 9);
  someip::store8(bytes.data() + 2, type);
  someip::store32(bytes.data() + 4, address);
  someip::store8(bytes.data() + 9, someip::udp_protocol);
  someip::store16(bytes.data() + 10, port);
  return bytes;
}
inline const auto network_number =
    0x7F000000U + (static_cast<std::uint32_t>(test::network()) << 16U);
inline const std::uint32_t attacker_number = network_number + 0x101;

inline someip::Entry entry_of(someip::Entry_type type,
                              std::uint16_t instance,
                              std::uint32_t ttl = 0xFFFF) {
  auto entry = offer_of(service, instance, 1, ttl);
  entry.type = type;
  entry.minor_version = someip::any_minor_version;
  entry.event_group = 1;
  if (entry.about_event_group()) entry.flags = someip::Entry::initial_data_flag;
  return entry;
}

inline Datagram message(std::uint16_t of,
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
inline std::uint16_t of_attacker(std::size_t number) {
  return static_cast<std::uint16_t>(2 + 127 * (number % 8));
}

inline std::vector<someip::Entry> entries(std::size_t count,
                                          const std::function<someip::Entry(std::size_t)>& make) {
  std::vector<someip::Entry> all;
  for (std::size_t i = 0; i < count; ++i)
    all.push_back(make(i));
  return all;
}

inline const std::vector<Datagram> two_endpoints{ipv4_option(0x04, attacker_number, 4000),
                                                 ipv4_option(0x04, attacker_number, 4001)};

inline const Attack attacks[] = {
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

}  // namespace bench
