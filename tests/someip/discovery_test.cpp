/// Service discovery in virtual time: what a node sends and reports, and when, for what its user
/// and its peers say.
#include "platform/someip/discovery/discovery.h"

#include <gmock/gmock.h>

#include <array>
#include <boost/algorithm/hex.hpp>
#include <ctime>
#include <set>
#include <span>

namespace someip {
namespace {

constexpr std::uint16_t vehicle = 0x10, remote = 0x20, other = 0x30;  // provided; used
constexpr std::uint16_t tick = 7, value = 8, unknown = 9;
constexpr auto forever = endless_ttl;

struct By {
  int peer = 2;
  bool multicast = false;
  std::uint16_t session = 0;  ///< 0: the next one
  std::uint8_t flags = 0xC0;  ///< reboot, unicast
};
constexpr By to_all{.multicast = true};
constexpr std::uint8_t no_reboot = 0x40, no_unicast = 0x80, explicit_initial_data = 0xE0;

Entry find(std::uint16_t service = vehicle) {
  Entry entry;
  entry.service = service;
  entry.instance = any_instance;
  entry.major_version = any_major_version;
  entry.ttl = 3;
  entry.minor_version = any_minor_version;
  return entry;
}
Entry offered(std::uint32_t ttl = forever,
              std::uint16_t instance = 1,
              std::uint16_t service = remote) {
  return {.type = Entry_type::offer_service,
          .service = service,
          .instance = instance,
          .major_version = 1,
          .ttl = ttl};
}
Entry wish(std::uint32_t ttl = forever, std::uint16_t group = tick, std::uint16_t flags = 0x80) {
  return {.type = Entry_type::subscribe,
          .service = vehicle,
          .instance = 1,
          .major_version = 1,
          .ttl = ttl,
          .flags = flags,
          .event_group = group};
}
Entry answer(std::uint32_t ttl = 3, std::uint16_t group = tick) {
  Entry entry = wish(ttl, group, 0);
  entry.type = Entry_type::subscribe_ack;
  entry.service = remote;
  return entry;
}

Group_transport by_udp() {
  Group_transport transport;
  transport.udp = true;
  return transport;
}

class Discovery_test : public testing::Test, Discovery_server_host, Discovery_client_host {
 protected:
  Discovery_test() {
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

TEST_F(Discovery_test, offers_wait_repeat_with_a_delay_that_doubles_and_go_on_cyclically) {
  timing.repetitions_max = 3;
  timing.cyclic_offer_delay = Milliseconds(250);
  offer();
  stop_offer();
  EXPECT_EQ(happened(), "");  // nobody knows of it yet
  offer();
  EXPECT_EQ(until(1000),
            "80 all: offer v1 | 130 all: offer v1 | 230 all: offer v1 | 430 all: offer v1 | 680 "
            "all: offer v1 | 930 all: offer v1");
  link(false);
  EXPECT_EQ(until(2000), "");
  link(true);
  EXPECT_EQ(until(2400), "2080 all: offer v1 | 2130 all: offer v1 | 2230 all: offer v1")
      << "as at the beginning";
  stop_offer();
  offer();
  timing.repetitions_max = 0;
  EXPECT_EQ(until(2800), "2410 all: stop-offer v1 | 2480 all: offer v1 | 2730 all: offer v1");
  timing.cyclic_offer_delay = Milliseconds(0);
  EXPECT_EQ(until(9000), "2980 all: offer v1");
}

TEST_F(Discovery_test, initial_delays_and_those_of_answers_are_drawn_from_their_range_each_time) {
  timing.initial_delay_min = timing.request_response_delay_min = Milliseconds(10);
  timing.initial_delay_max = timing.request_response_delay_max = Milliseconds(110);
  std::set<int> initial, of_answers;
  for (int begin = 0; begin < 40'000; begin += 2000) {
    offer();
    initial.insert(std::stoi(until(begin + 1000)) - begin);
    says(find(), to_all);
    of_answers.insert(std::stoi(until(begin + 1500)) - begin - 1000);
    stop_offer();
    until(begin + 2000);
  }
  for (const auto& delays : {initial, of_answers}) {
    EXPECT_GE(*delays.begin(), 10);
    EXPECT_LE(*delays.rbegin(), 110);
    EXPECT_GT(*delays.rbegin() - *delays.begin(), 15);
  }
}

TEST_F(Discovery_test, what_begins_together_travels_together_and_an_offer_ends_its_search_alone) {
  timing.repetitions_max = 3;
  offer();
  until(20);
  offer(2);
  search();
  search(other);
  EXPECT_EQ(until(100), "80 all: offer v1 offer v2 find r* find o*");
  EXPECT_EQ(says(offered(), to_all), "100 found r1");
  EXPECT_EQ(until(9000),
            "130 all: offer v1 offer v2 find o* | 230 all: offer v1 offer v2 find o* | 430 all: "
            "offer v1 offer v2 find o*");
}

TEST_F(Discovery_test, what_the_process_does_in_a_row_travels_together_in_its_order) {
  offer();
  offer(2);
  search();
  until(1000);
  says({offered(), offered(forever, 2)});
  subscribe();
  subscribe(unknown);
  until(1008);
  EXPECT_EQ(happened(), "");
  unsubscribe(unknown);  // has not left yet
  subscribe(value);
  EXPECT_EQ(until(1100), "1010 to 2: subscribe r1/7! subscribe r1/8!");
  unsubscribe(value);
  unsubscribe();
  stop_offer();
  subscribe(value);
  EXPECT_EQ(until(1200),
            "1110 to 2: stop r1/8 stop r1/7 subscribe r1/8! | 1110 all: stop-offer v1");
  subscribe();
  EXPECT_EQ(says(offered()), "1200 to 2: subscribe r1/7! subscribe r1/8!")
      << "the offer comes first";
  unsubscribe();
  EXPECT_EQ(says(find()), "1200 to 2: stop r1/7 offer v2") << "as much as fits into a datagram";
  unsubscribe(value);
  happened();
  link(false);
  EXPECT_EQ(happened(), "1200 lost r1 | 1200 lost r2");
  EXPECT_EQ(says(offered()) + happened(), "") << "nothing is heard without a link";
  EXPECT_EQ(until(1300).find("to 2"), std::string::npos);
  link(true);
  says(offered());
  for (std::uint16_t group = 100; group < 300; ++group)
    subscribe(group);
  const auto entries = until(1350);
  EXPECT_EQ(std::ranges::count(entries, '!'), 200);
  EXPECT_EQ(std::ranges::count(entries, ':'), 3) << "datagrams of at most 1400 bytes";
}

TEST_F(Discovery_test, a_search_sends_one_find_even_for_a_known_offer) {
  EXPECT_EQ(says(offered(), to_all), "0 found r1");
  search();
  search();
  stop_search();  // one of two
  EXPECT_EQ(until(9000), "80 all: find r*");
}

TEST_F(Discovery_test, multicast_finds_are_answered_after_a_delay_and_others_at_once) {
  offer();
  says(find());
  says(find(), to_all);
  EXPECT_EQ(until(70), "");  // in the initial wait
  until(1000);
  EXPECT_EQ(says(find()), "1000 to 2: offer v1");
  EXPECT_EQ(says(find(), to_all), "");
  EXPECT_EQ(until(1100), "1010 to 2: offer v1");
  says(find(), {.multicast = true, .flags = no_unicast});
  EXPECT_EQ(until(1200), "1110 all: offer v1");
  says(find(), to_all);
  stop_offer();
  EXPECT_EQ(until(9000), "1210 all: stop-offer v1");  // no late offer
}

TEST_F(Discovery_test,
       subscriptions_follow_a_multicast_offer_after_the_delay_and_a_unicast_one_at_once) {
  search();
  says(offered());
  subscribe();
  subscribe(value);
  until(100);
  EXPECT_EQ(says(offered()), "100 to 2: subscribe r1/7! subscribe r1/8!");
  says(offered(), to_all);
  EXPECT_EQ(until(200), "110 to 2: subscribe r1/7! subscribe r1/8!")
      << "no stop: those that a unicast offer brought are not watched";
  says({answer(), answer(3, value)});
  says(offered(), to_all);
  EXPECT_EQ(says(offered()), "200 to 2: subscribe r1/7 subscribe r1/8") << "before the delay ends";
  timing.request_response_delay_min = timing.request_response_delay_max = Milliseconds(0);
  says({answer(), answer(3, value)});
  EXPECT_EQ(says(offered(), to_all), "200 to 2: subscribe r1/7 subscribe r1/8");
}

TEST_F(Discovery_test, each_offer_brings_one_renewal_without_initial_data) {
  active();
  EXPECT_EQ(says(offered()), "300 to 2: subscribe r1/7");
  EXPECT_EQ(says(answer()), "");
  EXPECT_EQ(until(1000), "");
  says(offered(), to_all);
  EXPECT_EQ(until(2000), "1010 to 2: subscribe r1/7");
  says(answer());
  subscribe();  // a second user wants the values again
  EXPECT_EQ(until(2100), "2010 to 2: stop r1/7 subscribe r1/7!");
  says(answer());
  EXPECT_EQ(says(offered()), "2100 to 2: subscribe r1/7");  // wants them once
  unsubscribe();
  EXPECT_EQ(until(2200), "");
  unsubscribe();
  EXPECT_EQ(until(2300), "2210 to 2: stop r1/7");
  EXPECT_EQ(says(offered()), "");
}

TEST_F(
    Discovery_test,
    a_missing_acknowledgement_or_initial_value_brings_a_new_request_at_the_next_multicast_offer) {
  search();
  subscribe();
  for (const auto flags : {By{}.flags, explicit_initial_data}) {
    const std::string again =
        flags == explicit_initial_data ? "subscribe r1/7!" : "stop r1/7 subscribe r1/7!";
    const By by{.multicast = true, .flags = flags};
    says(offered(), by);
    until(150);
    EXPECT_EQ(says(offered(), {.flags = flags}), "150 to 2: subscribe r1/7!");
    says(offered(), by);
    until(200);
    for (const int round : {1, 2}) {
      says(offered(), by);
      EXPECT_EQ(until(200 + 100 * round), std::to_string(110 + 100 * round) + " to 2: " + again);
    }
    says(answer());
    value_missing = true;
    says(offered(), by);
    EXPECT_EQ(until(500), "410 to 2: " + again);
    says(answer());
    value_missing = false;
    says(offered(), by);
    EXPECT_EQ(until(600), "510 to 2: subscribe r1/7");
    says(offered(0));
    until(0);
  }
}

TEST_F(Discovery_test,
       a_refused_an_expired_and_a_stopped_subscription_begin_anew_at_the_next_offer) {
  active();
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(says(answer(0)), "300 off r1/7 | 300 refused r1/7");
    EXPECT_EQ(says(offered()), "300 to 2: subscribe r1/7!");
    EXPECT_EQ(says(answer()), "300 on r1/7");
  }
  EXPECT_EQ(until(4000), "3300 off r1/7");
  EXPECT_EQ(says(offered()), "4000 to 2: subscribe r1/7!");
  says(answer());
  EXPECT_EQ(says(offered(0), to_all), "4000 off r1/7 | 4000 lost r1");
  EXPECT_EQ(says(answer()), "");
  EXPECT_EQ(until(9000), "");  // no find
  EXPECT_EQ(says(offered()), "9000 found r1 | 9000 to 2: subscribe r1/7!");
}

TEST_F(Discovery_test,
       an_offer_ends_with_its_time_to_live_and_the_search_begins_again_without_another) {
  search();
  until(500);
  says(offered(1), to_all);
  says(offered(3, 2), {.peer = 3});
  until(1000);
  says(offered(1), to_all);
  EXPECT_EQ(until(2100), "2000 lost r1");
  EXPECT_EQ(until(4000),
            "3500 lost r2 | 3580 all: find r* | 3630 all: find r* | 3730 all: find r*");
  timing.longest_offer_ttl = 10;
  says(offered(), to_all);
  EXPECT_EQ(until(14'000), "14000 lost r1");
}

TEST_F(Discovery_test, a_server_that_restarts_is_subscribed_anew) {
  active();
  EXPECT_EQ(says(offered(), {.session = 1}),
            "300 off r1/7 | 300 lost r1 | 300 restart | 300 found r1 | 300 to 2: subscribe r1/7!");
  EXPECT_EQ(says(answer()), "300 on r1/7");
  until(1000);
  EXPECT_EQ(says(offered(), {.multicast = true, .session = 1}), "");
  until(1010);
  const std::string anew = "1010 off r1/7 | 1010 lost r1 | 1010 restart";
  says(answer());
  EXPECT_EQ(says(offered(), {.multicast = true, .session = 1}), anew + " | 1010 found r1");
  EXPECT_EQ(until(1050), "1020 to 2: subscribe r1/7!");
  // Without a new offer the old ones are void too.
  EXPECT_EQ(says(find(other), {.multicast = true, .session = 1}), "1050 lost r1 | 1050 restart");
  EXPECT_EQ(until(1100), "1090 all: find r*");
}

TEST_F(Discovery_test, sessions_and_reboot_flag_tell_a_restarted_client_from_lost_messages) {
  struct Contact {
    std::uint16_t session;
    std::uint8_t flags = By{}.flags;
    bool multicast = false;
  };
  offer();
  until(1000);
  int peer = 10;
  for (const auto& [stays, contacts] : std::vector<std::pair<bool, std::vector<Contact>>>{
           {false, {{5}, {1}}},
           {false, {{5}, {5}}},
           {false, {{0xFFFF}, {0xFFFE}}},
           {false, {{5, no_reboot}, {6}}},
           {true, {{1}, {2000}, {0xFFFF}}},
           {true, {{0xFFFF}, {1, no_reboot}, {2, no_reboot}, {1, no_reboot}}},
           {true, {{100}, {1, By{}.flags, true}, {101}, {2, By{}.flags, true}}}}) {
    ++peer;
    std::string all;
    for (const auto& one : contacts) {
      const By by{peer, one.multicast, one.session, one.flags};
      all += says(&one == &contacts.front() ? wish() : find(other), by);
    }
    EXPECT_EQ(all.find("0 use") == std::string::npos, stays) << peer;
    EXPECT_EQ(all.find("restart") == std::string::npos, stays) << peer;
    says(wish(0), {peer, false, static_cast<std::uint16_t>(contacts.back().session + 1),
                   contacts.back().flags});
  }
}

TEST_F(Discovery_test,
       all_wishes_of_a_message_are_answered_in_one_and_values_follow_the_answer_once) {
  offer();
  until(1000);
  EXPECT_EQ(says({wish(), wish(3, unknown), wish(3, value)}),
            "1000 1 use v1/7 | 1000 1 use v1/8 | 1000 to 2: accept v1/7 refuse v1/9 accept v1/8 | "
            "1000 values for 1 v1/7 | 1000 values for 1 v1/8");
  EXPECT_EQ(says(wish()), "1000 to 2: accept v1/7");  // a renewal
  EXPECT_EQ(says(wish(forever, tick, 0), {.flags = explicit_initial_data}),
            "1000 to 2: accept v1/7");
  EXPECT_EQ(says(wish(), {.flags = explicit_initial_data}),
            "1000 to 2: accept v1/7 | 1000 values for 1 v1/7");
  EXPECT_EQ(says({wish(0), wish()}),
            "1000 1 use v1/7 | 1000 to 2: accept v1/7 | 1000 values for 1 v1/7");
  EXPECT_EQ(says(wish(forever, tick, 0x8F)),
            "1000 2 use v1/7 | 1000 to 2: accept v1/7 | 1000 values for 1 v1/7");
  until(3000);
  EXPECT_EQ(says(wish(3, value)), "3000 to 2: accept v1/8");
  says(wish(5, value, 0x81));
  EXPECT_EQ(until(9000), "6000 1 use v1/8 | 8000 0 use v1/8");  // the others are endless
  EXPECT_EQ(says(wish(0)), "9000 1 use v1/7");
  stop_offer();
  EXPECT_EQ(until(9100), "9000 0 use v1/7 | 9010 all: stop-offer v1");
  EXPECT_EQ(says(wish()), "9100 to 2: refuse v1/7");
}

TEST_F(Discovery_test, a_subscription_counts_from_its_own_begin_and_ends_the_list_of_refusals) {
  says(wish());
  EXPECT_EQ(server().refusals().size(), 1U);
  offer();
  until(1000);
  std::vector<std::uint64_t> begins;
  for (const int peer : {2, 3, 4}) {
    events_sent += 10;
    says(wish(), {.peer = peer});
  }
  server().for_each_subscription(
      [&](auto&, auto, const auto& one) { begins.push_back(one.sent_before.value()); });
  EXPECT_THAT(begins, testing::ElementsAre(10, 20, 30));
  EXPECT_TRUE(server().refusals().empty());
}

TEST_F(Discovery_test, an_instance_stays_with_its_provider_and_newcomers_past_a_bound_are_refused) {
  deployment.limits.remote_instances = deployment.limits.remote_instances_per_address = 2;
  deployment.limits.discovery_peers = 3;
  active();
  EXPECT_EQ(says(offered(), {.peer = 3}), "");
  EXPECT_EQ(says(offered(0), {.peer = 3}), "");
  EXPECT_EQ(counters.refused_instances.value(), 2u);
  EXPECT_EQ(says({offered(3, 2), offered(3, 3), offered(3, 4)}), "300 found r2");
  EXPECT_EQ(counters.refused_instances.value(), 4u);
  for (int peer = 4; peer < 7; ++peer)
    says(find(), {.peer = peer});
  EXPECT_EQ(counters.refused_peers.value(), 2u);
  for (const auto ttl : {0U, forever, 0U, forever, 0U})
    says(offered(ttl, 2));
  EXPECT_EQ(says(offered(3, 3)), "300 found r3") << "what has gone leaves its place";
  says(offered(0));
  EXPECT_EQ(says(offered(), {.peer = 3}), "300 found r1 | 300 to 3: subscribe r1/7!");
}

TEST_F(Discovery_test, clients_of_the_unix_socket_need_no_place_on_a_list_no_link_and_no_renewal) {
  for (auto& service : deployment.services)
    service.allowed_peers = {boost::asio::ip::make_address("10.0.0.9")};
  timing.longest_subscribe_ttl = 5;
  offer();
  const By local{.peer = -7};
  EXPECT_EQ(says(find(), local), "") << "in the initial wait";
  until(1000);
  EXPECT_EQ(says(wish()), "");
  says(find(), {.peer = -7, .multicast = true});
  EXPECT_EQ(until(1100), "1010 to 7: offer v1");
  EXPECT_EQ(says(wish(3), local),
            "1100 1 use v1/7 | 1100 to 7: accept v1/7 | 1100 values for 1 v1/7");
  link(false);
  EXPECT_EQ(until(100'000), "");
  EXPECT_EQ(says({find(), wish(3, value)}, {.peer = -8, .session = 1}),
            "100000 1 use v1/8 | 100000 to 8: offer v1 accept v1/8 | 100000 values for 1 v1/8");
  EXPECT_EQ(says(offered(), {.peer = -8, .session = 1}), "") << "clients provide nothing";
  local_client_lost(-7);
  EXPECT_EQ(happened(), "100000 0 use v1/7");
}

TEST_F(Discovery_test, a_find_costs_no_more_when_many_answers_wait) {
  constexpr int instances = 200, clients = 200;
  for (std::uint16_t instance = 1; instance <= instances; ++instance)
    offer(instance);
  until(1000);
  const auto begin = std::clock();
  for (int repeated = 0; repeated < 2; ++repeated) {
    for (int client = 2; client < 2 + clients; ++client)
      says(find(), {.peer = client, .multicast = true});
  }
  // A look at all waiting answers for each of them takes many seconds.
  EXPECT_LT(std::clock() - begin, 3 * CLOCKS_PER_SEC);
  const auto answers = until(1100);
  EXPECT_EQ(std::ranges::count(answers, 'v'), instances * clients);
}

const std::string own = "000904000a000002001107d0";  // 10.0.0.2, UDP, port 2000
constexpr std::uint32_t all_of(std::size_t count) {
  return static_cast<std::uint32_t>(count << 4);
}

/// An endpoint option of UDP.
std::string at(const std::string& address, const std::string& rest = "001107d0") {
  return "00090400" + address + rest;
}
/// A configuration option with these bytes behind the reserved one.
std::string configuration(const std::string& content) {
  char head[9];
  std::snprintf(head, sizeof head, "%04x0100", static_cast<unsigned>(content.size() / 2 + 1));
  return head + content;
}

TEST_F(Discovery_test, options_that_name_no_usable_endpoint_refuse_the_entry) {
  node.prefix_length = 24;
  offer();
  until(1000);
  ASSERT_TRUE(usable(own, all_of(1)));
  for (const auto& option :
       {std::string("000804000a000002001107"), own.substr(0, 3) + "a" + own.substr(4) + "00",
        std::string("000004"), at("0a000002", "000107d0"), at("0a000002", "008407d0"),
        at("0a000002", "00110000"), configuration("036b657900"),
        "00150600fd0000000000000000000000000000010011" + std::string("07d0"), at("0a010203"),
        at("00000000"), at("ffffffff"), at("ef010203"), at("0a0000ff"), at("0a000001")}) {
    EXPECT_FALSE(usable(option, all_of(1))) << option;
  }
  for (const auto& another : {at("0a000002", "001107d1"), at("0a00004d")}) {
    EXPECT_FALSE(usable(own + another, all_of(2))) << another;
    EXPECT_FALSE(usable(own + another, 0x000111)) << another;
  }
  for (const auto beyond : {0x010010U, 0x000020U, 0xFF00F0U, 0x0000F0U, 0x000111U, 0U})
    EXPECT_FALSE(usable(own, beyond)) << beyond;
  EXPECT_FALSE(usable("", all_of(1)));
  node.prefix_length = 0;
  for (const auto& option : {at("00000000"), at("ef010203"), at("0a000001"), at("00000007")})
    EXPECT_FALSE(usable(option, all_of(1))) << option;
}

TEST_F(Discovery_test, options_that_the_entry_does_not_need_are_ignored_unless_they_are_malformed) {
  node.prefix_length = 24;
  offer();
  until(1000);
  for (const auto& option :
       {configuration("096b65793d76616c756500"), configuration("036b657900"),
        configuration("046b65793d00"), configuration("00"),
        configuration("056b65793d61056b65793d6200"), configuration("0a6b65793d763d6d6f726500"),
        configuration("056b203dc3a400"), std::string("0005020000010002"),
        std::string("00097700616e797468696e67"), std::string("0001ff80"), std::string("000030"),
        "001115" + std::string(34, '0'),
        "00150600fd0000000000000000000000000000010011" + std::string("07d0"),
        at("0a000002", "000607d0"), own, std::string("00091400ef010203001107d0")}) {
    EXPECT_TRUE(usable(own + option, all_of(2))) << option;
    EXPECT_TRUE(usable(option + own, all_of(2))) << option;
    EXPECT_TRUE(usable(option + own, 0x000111)) << option;
    EXPECT_TRUE(usable(option + own, 0x010010)) << option;
    EXPECT_TRUE(usable(option + own, 0xFF0101)) << "the index of an empty run";
  }
  for (const auto& option :
       {configuration("096b65793d76616c7565"), configuration("063d76616c756500"),
        configuration("0961626300"), configuration("046b01793d00"),
        configuration("036b6579006d6f7265"), std::string("000001"),
        std::string("0009040000000000")}) {  // cut off at the end of the message
    EXPECT_FALSE(usable(own + option, all_of(2))) << option;
    EXPECT_TRUE(usable(own + option, all_of(1))) << "of another entry: " << option;
  }
}

TEST_F(Discovery_test, options_of_finds_do_not_matter_and_events_go_to_the_subscriber_itself) {
  offer();
  until(1000);
  for (const auto& option :
       {own, at("ef010203", "00110000"), configuration("036b657900"), std::string("000277003078")})
    EXPECT_EQ(says_raw(find(), option, all_of(1)), "1000 to 2: offer v1") << option;
  EXPECT_EQ(says_raw(find(), "", all_of(1)), "");
  EXPECT_EQ(says_raw(find(), own, 0x030020), "");
  EXPECT_EQ(counters.dropped_entries.value(), 2u);
  EXPECT_EQ(says_raw(wish(), at("0a000005"), all_of(1)), "1000 to 2: refuse v1/7");
  timing.subscriptions_for_others = true;
  EXPECT_NE(says_raw(wish(), at("0a000005"), all_of(1)).find("accept"), std::string::npos);
  // Only the endpoint that is used tells subscriptions apart.
  says_raw(wish(), own + at("0a000002", "000607d0"), all_of(2));
  EXPECT_EQ(says_raw(wish(0), own, all_of(1)), "1000 1 use v1/7");
  for (const auto& address : {"0a010203", "00000000", "ffffffff", "0a000001"}) {
    node.prefix_length = 24;
    EXPECT_EQ(says_raw(find(), std::string("00092400") + address + "0011771a", 0), "") << address;
  }
}

}  // namespace
}  // namespace someip
