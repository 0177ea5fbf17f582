/// A node's service discovery in virtual time: the test plays its user, its peers and its link.
#pragma once

#include <gmock/gmock.h>

#include <array>
#include <boost/algorithm/hex.hpp>
#include <span>

#include "platform/someip/discovery/discovery.h"

namespace someip {

inline constexpr std::uint16_t vehicle = 0x10, remote = 0x20, other = 0x30;  // provided; used
inline constexpr std::uint16_t tick = 7, value = 8, unknown = 9;
inline constexpr auto forever = endless_ttl;

struct By {
  int peer = 2;
  bool multicast = false;
  std::uint16_t session = 0;  ///< 0: the next one
  std::uint8_t flags = 0xC0;  ///< reboot, unicast
};
inline constexpr By to_all{.multicast = true};
inline constexpr std::uint8_t no_reboot = 0x40, no_unicast = 0x80, explicit_initial_data = 0xE0;

inline Entry find(std::uint16_t service = vehicle) {
  return {.service = service,
          .instance = any_instance,
          .major_version = any_major_version,
          .ttl = 3,
          .minor_version = any_minor_version};
}
inline Entry offered(std::uint32_t ttl = forever,
                     std::uint16_t instance = 1,
                     std::uint16_t service = remote) {
  return {.type = Entry_type::offer_service,
          .service = service,
          .instance = instance,
          .major_version = 1,
          .ttl = ttl};
}
inline Entry wish(std::uint32_t ttl = forever,
                  std::uint16_t group = tick,
                  std::uint16_t flags = 0x80) {
  return {.type = Entry_type::subscribe,
          .service = vehicle,
          .instance = 1,
          .major_version = 1,
          .ttl = ttl,
          .flags = flags,
          .event_group = group};
}
inline Entry answer(std::uint32_t ttl = 3, std::uint16_t group = tick) {
  Entry entry = wish(ttl, group, 0);
  entry.type = Entry_type::subscribe_ack;
  entry.service = remote;
  return entry;
}

inline Group_transport by_udp() {
  Group_transport transport;
  transport.udp = true;
  return transport;
}

class Discovery_node : public testing::Test, Discovery_server_host, Discovery_client_host {
 protected:
  Discovery_node() {
    timing.initial_delay_min = timing.initial_delay_max = Milliseconds(80);
    timing.repetitions_base_delay = Milliseconds(50);
    timing.repetitions_max = 2;
    timing.cyclic_offer_delay = Milliseconds(0);
    timing.request_response_delay_min = timing.request_response_delay_max = Milliseconds(10);
    for (const auto service : {vehicle, remote, other}) {
      deployment.services.emplace_back();
      deployment.services.back().id = service;
      deployment.services.back().major_version = 1;
    }
    node.prefix_length = 0;
  }

  // What the user does
  void offer(std::uint16_t instance = 1) {
    Offer one;
    one.key = {vehicle, instance, 1};
    one.endpoints.udp = endpoint(1, 1000);
    one.groups = {{tick, by_udp()}, {value, by_udp()}};
    one.allowed_peers = deployment.services.front().allowed_peers;
    discovery().offer(one, now);
  }
  void stop_offer() { discovery().stop_offer({vehicle, 1, 1}, now); }
  void search(std::uint16_t service = remote) {
    discovery().start_search({service, any_instance, 1}, now);
  }
  void stop_search() { discovery().stop_search({remote, any_instance, 1}, now); }
  void subscribe(std::uint16_t group = tick) {
    discovery().subscribe({remote, 1, 1}, group, by_udp(), now);
  }
  void unsubscribe(std::uint16_t group = tick) {
    discovery().unsubscribe({remote, 1, 1}, group, now);
  }

  // What a peer says, and the link
  std::string says(const std::vector<Entry>& entries, const By& by = {}) {
    Discovery_writer writer;
    for (const Entry& one : entries) {
      const bool without =
          one.type == Entry_type::find_service || one.type == Entry_type::subscribe_ack;
      EXPECT_TRUE(writer.add(
          one, without ? std::vector<Option>{}
                       : std::vector{Option::unicast(endpoint(by.peer, 2000), udp_protocol)}));
    }
    auto& session = sessions[{by.peer, by.multicast}];
    session = by.session != 0 ? by.session : static_cast<std::uint16_t>(session + 1);
    auto bytes = writer.message(session, true);
    bytes[header_size] = std::byte{by.flags};
    discovery().received(bytes, endpoint(by.peer, 30490), by.multicast, now);
    return happened();
  }
  std::string says(const Entry& entry, const By& by = {}) { return says(std::vector{entry}, by); }
  /// A message with one entry that refers to `options`, bytes in hexadecimal digits. `runs`: the
  /// two indexes and the two counts.
  std::string says_raw(Entry entry, const std::string& options, std::uint32_t runs) {
    Discovery_writer writer;
    EXPECT_TRUE(writer.add(entry, {}));
    auto bytes = writer.message(++sessions[{2, false}], true);
    const std::string content = boost::algorithm::unhex(options);
    for (std::size_t i = 0; i < 3; ++i)
      bytes[header_size + 9 + i] = static_cast<std::byte>(runs >> (16 - 8 * i));
    const auto add = std::as_bytes(std::span(content));
    store32(bytes.data() + bytes.size() - 4, static_cast<std::uint32_t>(add.size()));
    bytes.insert(bytes.end(), add.begin(), add.end());
    store32(bytes.data() + 4, static_cast<std::uint32_t>(bytes.size() - 8));
    discovery().received(bytes, endpoint(2, 30490), false, now);
    return happened();
  }
  /// Is a subscription with these options acknowledged, and an offer with them used? Both or none.
  bool usable(const std::string& options, std::uint32_t runs) {
    const bool offer_used = says_raw(offered(), options, runs).find("found") != std::string::npos;
    says(offered(0));
    const auto answer = says_raw(wish(), options, runs);
    EXPECT_EQ(offer_used, answer.find("accept") != std::string::npos) << options << ": " << answer;
    says(wish(0));
    return offer_used;
  }
  void local_client_lost(int peer) { discovery().local_client_lost(endpoint(peer, 1), now); }
  void link(bool up) { discovery().link_changed(up, now); }

  /// What happens in the first N milliseconds after the start.
  std::string until(int milliseconds) {
    const Time end = start + Milliseconds(milliseconds);
    while (next <= end) {
      now = std::max(now, next);
      discovery().on_time(now);
    }
    now = end;
    return happened();
  }
  std::string happened() { return std::exchange(events, {}); }
  const Discovery_server& server() { return discovery().server(); }
  /// Known and found: a peer that offers to all, and a subscription it has acknowledged.
  void active() {
    search();
    says(offered(), to_all);
    subscribe();
    until(100);
    says(answer());
    until(300);
  }

  Deployment deployment;
  Discovery_timing& timing = deployment.discovery;
  Node_deployment node;
  bool value_missing = false;
  std::uint64_t events_sent = 0;
  Counters counters;

 private:
  /// A negative host is a client of the Unix socket.
  static Endpoint endpoint(int host, std::uint16_t port) {
    if (host < 0) return {local_address(static_cast<std::uint32_t>(-host), true), 1};
    return {boost::asio::ip::make_address("10.0.0." + std::to_string(host)), port};
  }
  Discovery& discovery() {
    if (!discovery_) {
      discovery_.emplace(
          deployment, node, endpoint(1, 0).address, counters, log,
          Discovery::Host{*this, *this, [this](auto& bytes, auto& to) { sent(bytes, to); },
                          [this](Time time) { next = time; },
                          [this](auto&, auto) { note("restart"); }});
    }
    return *discovery_;
  }
  void note(const std::string& text) {
    if (!events.empty()) events += " | ";
    events +=
        std::to_string(std::chrono::duration_cast<Milliseconds>(now - start).count()) + ' ' + text;
  }
  void note(const std::string& what, const Instance_key& key, int group = 0) {
    note(what + name(key.service, key.instance, group));
  }
  /// "v1/7": the vehicle's first instance and its group 7; "*": any instance.
  static std::string name(std::uint16_t service, std::uint16_t instance, int group) {
    return std::string(" ") + " vro"[service / 16] +
           (instance == any_instance ? "*" : std::to_string(instance)) +
           (group != 0 ? "/" + std::to_string(group) : "");
  }
  void sent(const std::vector<std::byte>& bytes, const Discovery_outbox::Destination& to) {
    static const std::map<Entry_type, std::array<const char*, 2>> names{
        {Entry_type::find_service, {" find", " ?"}},
        {Entry_type::offer_service, {" offer", " stop-offer"}},
        {Entry_type::subscribe, {" subscribe", " stop"}},
        {Entry_type::subscribe_ack, {" accept", " refuse"}}};
    const auto message = read_discovery_message(Bytes(bytes).subspan(header_size), 100);
    ASSERT_TRUE(message);
    auto text = to ? "to " + std::to_string(to->address.to_v4().to_bytes()[3]) + ":" : "all:";
    for (const Entry& one : message->entries) {
      text += names.at(one.type)[one.ttl == 0] + name(one.service, one.instance, one.event_group);
      if (one.type == Entry_type::subscribe && one.ttl != 0 && one.initial_data_requested())
        text += '!';
    }
    note(text);
  }

  bool has_connection(const Offer&, const Endpoint&) override { return false; }
  void subscribers_changed(const Instance_key& key,
                           std::uint16_t group,
                           const std::vector<Subscriber>& all) override {
    note(std::to_string(all.size()) + " use", key, group);
  }
  std::size_t values_wanted(const Instance_key& key,
                            std::uint16_t group,
                            const std::vector<Subscriber>& fresh) override {
    note("values for " + std::to_string(fresh.size()), key, group);
    return 1;
  }
  std::uint64_t sent_to_all(const Instance_key&, std::uint16_t) const override {
    return events_sent;
  }
  void instance_available(const Instance_key& key, const Remote_offer&) override {
    note("found", key);
  }
  void instance_gone(const Instance_key& key, const Loss&) override { note("lost", key); }
  bool has_delivered(const Instance_key&, const Address&) override { return false; }
  void refused_by(const Origin&, const Instance_key& key, std::uint16_t group) override {
    note("refused", key, group);
  }
  void subscription_changed(const Instance_key& key, std::uint16_t group, bool on) override {
    note(on ? "on" : "off", key, group);
  }
  void listen_to(const Instance_key&, std::uint16_t, const Endpoint&) override {}
  bool initial_value_missing(const Instance_key&, std::uint16_t) const override {
    return value_missing;
  }
  Endpoint udp_endpoint() const override { return endpoint(1, 3000); }
  void doubt_connection(const Endpoint&) override {}
  std::optional<Endpoint> tcp_endpoint(const Endpoint&) override { return std::nullopt; }

  Log log{nullptr};
  const Time start{std::chrono::hours(1)};
  Time now = start;
  Time next = Time::max();  ///< deadline of discovery_
  std::string events;
  std::map<std::pair<int, bool>, std::uint16_t> sessions;
  std::optional<Discovery> discovery_;
};

}  // namespace someip
