// Both sides of service discovery with a clock that the test moves and messages that the test
// reads.
#include "platform/someip/discovery.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <set>
#include <string>

namespace someip {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

Address address(const char* text) {
  return boost::asio::ip::make_address(text);
}

const Address own = address("10.0.0.1");
const Endpoint peer{address("10.0.0.2"), 30490};
const Endpoint own_events{own, 40000};
const Endpoint server_udp{address("10.0.0.2"), 30501};
const Instance_key key{0x1111, 1, 1};
constexpr std::uint16_t events = 7;
const Group_transport over_udp{
    .udp = true, .tcp = false, .multicast = {}, .multicast_threshold = 0};

Deployment deployment() {
  Deployment result;
  result.discovery.initial_delay_min = result.discovery.initial_delay_max = 50ms;
  result.discovery.repetitions_base_delay = 100ms;
  result.discovery.repetitions_max = 3;
  result.discovery.cyclic_offer_delay = 1000ms;
  result.discovery.request_response_delay_min = result.discovery.request_response_delay_max = 20ms;
  result.discovery.offer_ttl = result.discovery.subscribe_ttl = 3;
  Service_deployment service;
  service.name = "service";
  service.id = key.service;
  service.major_version = key.major_version;
  result.services.push_back(service);
  service.id = 0x2222;
  service.allowed_peers = {address("10.0.0.9")};
  result.services.push_back(service);
  return result;
}

/// A discovery whose messages are written down as "time destination entries", such as
/// "50 group offer 1111.1 ttl 3".
class Network : private Discovery_server_host, private Discovery_client_host {
 public:
  explicit Network(const Deployment& deployed = deployment()) : deployment_(deployed) {
    node_.prefix_length = 8;
    discovery.emplace(
        deployment_, node_, own, counters, log_,
        Discovery::Host{*this, *this,
                        [this](const std::vector<std::byte>& bytes,
                               const Discovery_outbox::Destination& to) { write_down(bytes, to); },
                        [this](const Address&, Time) { log.push_back("restart"); }});
  }

  /// Moves the clock to `until`, running everything that becomes due.
  void run(std::chrono::milliseconds until) {
    while (discovery->next_deadline() <= start + until) {
      now = std::max(now, discovery->next_deadline());
      discovery->on_time(now);
    }
    now = start + until;
  }
  /// Everything that happened since the last call.
  std::vector<std::string> take() { return std::exchange(log, {}); }

  void change(const std::function<void(Discovery_server&, Discovery_client&)>& work) {
    discovery->change(now, work);
  }
  void offer(const Instance_key& offered = key) {
    Offer offer;
    offer.key = offered;
    offer.endpoints.udp = Endpoint{own, 31000};
    offer.groups[events] = over_udp;
    change([&](auto& server, auto&) { server.offer(offer, now); });
  }
  void receive(const Discovery_writer& writer, bool multicast, bool reboot = true) {
    auto& session = multicast ? multicast_session : unicast_session;
    discovery->received(writer.message(++session, reboot), peer, multicast, now);
  }
  void receive(Entry entry, const std::vector<Option>& options, bool multicast) {
    Discovery_writer writer;
    static_cast<void>(writer.add(entry, options));
    receive(writer, multicast);
  }
  static Entry entry(Entry_type type, std::uint32_t ttl) {
    Entry result;
    result.type = type;
    result.service = key.service;
    result.instance = key.instance;
    result.major_version = key.major_version;
    result.event_group = events;
    result.ttl = ttl;
    if (type == Entry_type::find_service) result.minor_version = any_minor_version;
    return result;
  }
  void receive_offer(bool multicast = true, std::uint32_t ttl = 3) {
    receive(entry(Entry_type::offer_service, ttl), {Option::unicast(server_udp, udp_protocol)},
            multicast);
  }
  void receive_ack(std::uint32_t ttl = 3) {
    receive(entry(Entry_type::subscribe_ack, ttl), {}, false);
  }
  void receive_subscribe(std::uint32_t ttl, std::uint16_t port = 5000) {
    receive(entry(Entry_type::subscribe, ttl),
            {Option::unicast({peer.address, port}, udp_protocol)}, false);
  }

  const Time start{1000s};
  Time now = start;
  std::vector<std::string> log;
  Counters counters;
  std::uint16_t multicast_session = 0, unicast_session = 0;
  std::optional<Discovery> discovery;
  bool value_missing = false;

 private:
  static std::string name(const Entry& entry) {
    char ids[32];
    std::snprintf(ids, sizeof ids, "%04x.%x", unsigned{entry.service}, unsigned{entry.instance});
    switch (entry.type) {
      case Entry_type::find_service:
        return std::string("find ") + ids;
      case Entry_type::offer_service:
        return (entry.ttl == 0 ? "stop-offer " : "offer ") + std::string(ids);
      case Entry_type::subscribe:
        return (entry.ttl == 0 ? "stop-subscribe " : "subscribe ") + std::string(ids) +
               (entry.initial_data_requested() ? " initial" : "");
      case Entry_type::subscribe_ack:
        return (entry.ttl == 0 ? "nack " : "ack ") + std::string(ids);
    }
    return "?";
  }
  void write_down(const std::vector<std::byte>& bytes, const Discovery_outbox::Destination& to) {
    const auto message = read_discovery_message(Bytes(bytes).subspan(header_size), 1000);
    std::string line =
        std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(now - start).count());
    line += to ? " peer" : " group";
    for (const Entry& one : message->entries)
      line += ", " + name(one);
    log.push_back(line);
  }

  bool has_connection(const Offer&, const Endpoint&) override { return true; }
  void subscribers_changed(const Instance_key&,
                           std::uint16_t,
                           const std::vector<Subscriber>& all,
                           const std::vector<Subscriber>& fresh) override {
    log.push_back("subscribers " + std::to_string(all.size()) + " fresh " +
                  std::to_string(fresh.size()));
  }
  void instance_available(const Instance_key&, const Remote_offer&) override {
    log.push_back("available");
  }
  void instance_gone(const Instance_key&) override { log.push_back("gone"); }
  void subscription_changed(const Instance_key&, std::uint16_t, bool active) override {
    log.push_back(active ? "active" : "inactive");
  }
  void listen_to(const Instance_key&, std::uint16_t, const Endpoint&) override {}
  bool initial_value_missing(const Instance_key&, std::uint16_t) const override {
    return value_missing;
  }
  void doubt_connection(const Endpoint&) override {}
  Endpoint udp_endpoint() const override { return own_events; }
  std::optional<Endpoint> tcp_endpoint(const Endpoint&) override { return std::nullopt; }

  const Deployment deployment_;
  Node_deployment node_;
  Log log_{nullptr};
};

TEST(Offers, go_through_their_three_phases) {
  Network network;
  network.offer();
  network.run(2900ms);
  EXPECT_THAT(network.take(), ElementsAre("50 group, offer 1111.1", "150 group, offer 1111.1",
                                          "350 group, offer 1111.1", "750 group, offer 1111.1",
                                          "1750 group, offer 1111.1", "2750 group, offer 1111.1"));
  network.change([](auto& server, auto&) { server.stop_offer(key); });
  network.run(9000ms);
  EXPECT_THAT(network.take(), ElementsAre("2900 group, stop-offer 1111.1"));
}

TEST(Offers, without_repetitions_and_without_cycle) {
  auto deployed = deployment();
  deployed.discovery.repetitions_max = 0;
  deployed.discovery.cyclic_offer_delay = 0ms;
  Network network(deployed);
  network.offer();
  network.run(20s);
  EXPECT_THAT(network.take(), ElementsAre("50 group, offer 1111.1"));
}

TEST(Offers, and_finds_that_wait_together_leave_in_one_message_someipsd_65) {
  Network network;
  network.offer();
  network.run(20ms);
  network.offer({0x1111, 2, 1});
  network.change(
      [&](auto&, auto& client) { client.start_search(0x2222, any_instance, 1, network.now); });
  network.run(60ms);
  EXPECT_THAT(network.take(), ElementsAre("50 group, offer 1111.1, offer 1111.2, find 2222.ffff"));
}

TEST(Offers, stopped_before_they_were_sent_are_never_mentioned) {
  Network network;
  network.offer();
  network.change([](auto& server, auto&) { server.stop_offer(key); });
  network.run(5000ms);
  EXPECT_THAT(network.take(), IsEmpty());
}

TEST(Finds, are_answered_late_when_they_came_by_multicast_and_at_once_by_unicast) {
  Network network;
  network.offer();
  network.receive(Network::entry(Entry_type::find_service, 3), {}, true);
  network.run(1000ms);
  EXPECT_EQ(network.take().size(), 4u) << "no answer before the first offer";
  network.receive(Network::entry(Entry_type::find_service, 3), {}, true);
  network.receive(Network::entry(Entry_type::find_service, 3), {}, true);
  network.run(1100ms);
  EXPECT_THAT(network.take(), ElementsAre("1020 peer, offer 1111.1")) << "one answer for both";
  network.receive(Network::entry(Entry_type::find_service, 3), {}, false);
  EXPECT_THAT(network.take(), ElementsAre("1100 peer, offer 1111.1"));
}

TEST(Finds, repeat_with_doubling_delays_and_end) {
  Network network;
  network.change(
      [&](auto&, auto& client) { client.start_search(key.service, any_instance, 1, network.now); });
  network.run(20s);
  EXPECT_THAT(network.take(),
              ElementsAre("50 group, find 1111.ffff", "150 group, find 1111.ffff",
                          "350 group, find 1111.ffff", "750 group, find 1111.ffff"));
}

TEST(Finds, are_silent_once_an_offer_is_known_and_begin_again_when_it_expires) {
  Network network;
  network.change([&](auto&, auto& client) { client.start_search(key.service, 1, 1, network.now); });
  network.run(60ms);
  network.take();
  network.receive_offer();
  EXPECT_THAT(network.take(), ElementsAre("available"));
  network.run(3000ms);
  EXPECT_THAT(network.take(), IsEmpty());
  network.run(3200ms);
  EXPECT_THAT(network.take(), ElementsAre("gone", "3110 group, find 1111.1"));
  network.receive_offer();
  network.receive_offer(true, 0);
  network.run(9000ms);
  EXPECT_THAT(network.take(), ElementsAre("available", "gone"))
      << "someipsd_834: no find after a stop";
}

TEST(Subscriptions, follow_offers_after_the_delay_of_their_transport) {
  Network network;
  network.change(
      [&](auto&, auto& client) { client.subscribe(key, events, over_udp, network.now); });
  EXPECT_THAT(network.take(), IsEmpty());
  network.receive_offer();
  network.run(19ms);
  EXPECT_THAT(network.take(), ElementsAre("available"));
  network.run(20ms);
  EXPECT_THAT(network.take(), ElementsAre("20 peer, subscribe 1111.1 initial"));
  network.receive_ack();
  EXPECT_THAT(network.take(), ElementsAre("active"));
  network.receive_offer(false);
  EXPECT_THAT(network.take(), ElementsAre("20 peer, subscribe 1111.1")) << "renewal, at once";
  network.receive_ack();
  network.run(5000ms);
  EXPECT_THAT(network.take(), ElementsAre("inactive", "gone"))
      << "nothing is sent without an offer";
}

TEST(Subscriptions, ask_for_initial_data_again_when_they_were_not_answered_someipsd_844) {
  Network network;
  network.change(
      [&](auto&, auto& client) { client.subscribe(key, events, over_udp, network.now); });
  network.receive_offer();
  network.run(500ms);
  network.receive_ack();
  network.take();
  network.receive_offer();
  network.run(1000ms);
  EXPECT_THAT(network.take(), ElementsAre("520 peer, subscribe 1111.1"));
  network.receive_offer();
  network.run(1500ms);
  EXPECT_THAT(network.take(), ElementsAre("1020 peer, subscribe 1111.1 initial"));
  network.receive_ack();
  network.value_missing = true;
  network.receive_offer();
  network.run(2000ms);
  EXPECT_THAT(network.take(), ElementsAre("1520 peer, subscribe 1111.1 initial")) << "someipsd_691";
}

TEST(Subscriptions, end_when_nobody_acknowledges_them_any_more) {
  Network network;
  network.change(
      [&](auto&, auto& client) { client.subscribe(key, events, over_udp, network.now); });
  network.receive_offer(true, endless_ttl);
  network.run(20ms);
  network.receive_ack();
  network.take();
  network.run(3020ms);
  EXPECT_THAT(network.take(), ElementsAre("inactive"));
}

TEST(Subscriptions, are_void_after_a_restart_and_made_anew) {
  Network network;
  network.change(
      [&](auto&, auto& client) { client.subscribe(key, events, over_udp, network.now); });
  network.receive_offer();
  network.run(20ms);
  network.receive_ack();
  network.take();
  network.multicast_session = 0;
  network.receive_offer();
  network.run(60ms);
  EXPECT_THAT(network.take(), ElementsAre("inactive", "gone", "restart", "available",
                                          "40 peer, subscribe 1111.1 initial"));
  network.unicast_session = 0;
  network.receive_ack();
  EXPECT_THAT(network.take(), ElementsAre("active"))
      << "the same restart, seen on the other channel";
  EXPECT_EQ(network.counters.peer_restarts.value(), 1u);
}

TEST(Subscribers, are_acknowledged_then_served_and_expire) {
  Network network;
  network.offer();
  network.run(100ms);
  network.take();
  network.receive_subscribe(1);
  EXPECT_THAT(network.take(), ElementsAre("subscribers 1 fresh 0", "100 peer, ack 1111.1"))
      << "the sender knows the flag and did not set it";
  network.run(900ms);
  network.take();
  network.receive_subscribe(2);
  network.receive_subscribe(endless_ttl, 5001);
  network.run(2800ms);
  network.take();
  network.run(2900ms);
  EXPECT_THAT(network.take(), ElementsAre("subscribers 1 fresh 0"));
  EXPECT_EQ(network.counters.subscriptions_expired.value(), 1u);
  network.change([](auto& server, auto&) { server.stop_offer(key); });
  EXPECT_THAT(network.take(),
              ElementsAre("subscribers 0 fresh 0", "2900 group, stop-offer 1111.1"));
}

TEST(Link, lost_ends_the_subscribers_and_its_return_begins_the_offers_anew) {
  Network network;
  network.offer();
  network.run(1000ms);
  network.receive_subscribe(endless_ttl);
  network.take();
  network.discovery->link_changed(false, network.now);
  EXPECT_THAT(network.take(), ElementsAre("subscribers 0 fresh 0"));
  network.offer({0x1111, 2, 1});
  network.receive_subscribe(endless_ttl);
  network.receive(Network::entry(Entry_type::find_service, 3), {}, false);
  network.run(5000ms);
  EXPECT_THAT(network.take(), IsEmpty()) << "nothing is sent, nothing received counts";
  network.discovery->link_changed(true, network.now);
  network.run(5200ms);
  EXPECT_THAT(network.take(), ElementsAre("5050 group, offer 1111.1, offer 1111.2",
                                          "5150 group, offer 1111.1, offer 1111.2"));
}

TEST(Link, lost_ends_what_was_found_and_its_return_begins_the_searches_anew) {
  Network network;
  network.change([&](auto&, auto& client) {
    client.start_search(key.service, 1, 1, network.now);
    client.subscribe(key, events, over_udp, network.now);
  });
  network.receive_offer(true, endless_ttl);
  network.run(100ms);
  network.receive_ack();
  network.receive_offer(true, endless_ttl);
  network.take();
  network.discovery->link_changed(false, network.now);
  EXPECT_THAT(network.take(), ElementsAre("inactive", "gone"));
  network.receive_offer(true, endless_ttl);
  network.run(5000ms);
  EXPECT_THAT(network.take(), IsEmpty());
  network.discovery->link_changed(true, network.now);
  network.run(5200ms);
  EXPECT_THAT(network.take(), ElementsAre("5050 group, find 1111.1", "5150 group, find 1111.1"));
  network.receive_offer(false, endless_ttl);
  EXPECT_THAT(network.take(), ElementsAre("available", "5200 peer, subscribe 1111.1 initial"));
}

TEST(Subscribers, of_a_stopped_offer_are_refused) {
  Network network;
  network.receive_subscribe(3);
  EXPECT_THAT(network.take(), ElementsAre("0 peer, nack 1111.1"));
  network.receive_subscribe(0);
  EXPECT_THAT(network.take(), IsEmpty()) << "a stop is never answered";
}

TEST(Peers, that_are_not_allowed_neither_provide_nor_use) {
  Network network;
  Entry offer = Network::entry(Entry_type::offer_service, 3);
  offer.service = 0x2222;
  network.receive(offer, {Option::unicast(server_udp, udp_protocol)}, true);
  EXPECT_THAT(network.take(), IsEmpty());
  EXPECT_EQ(network.counters.dropped_foreign_peer.value(), 1u);
}

TEST(Entries, of_event_groups_by_multicast_are_dropped_someipsd_818) {
  Network network;
  network.offer();
  network.run(100ms);
  network.take();
  network.receive(Network::entry(Entry_type::subscribe, 3),
                  {Option::unicast({peer.address, 5000}, udp_protocol)}, true);
  EXPECT_THAT(network.take(), IsEmpty());
  EXPECT_EQ(network.counters.dropped_entries.value(), 1u);
}

TEST(Instances, past_the_bound_are_refused_and_the_known_ones_stay) {
  auto deployed = deployment();
  deployed.limits.remote_instances = 2;
  Network network(deployed);
  Discovery_writer writer;
  for (std::uint16_t instance = 1; instance <= 5; ++instance) {
    Entry entry = Network::entry(Entry_type::offer_service, 3);
    entry.instance = instance;
    ASSERT_TRUE(writer.add(entry, {Option::unicast({peer.address, instance}, udp_protocol)}));
  }
  network.receive(writer, true);
  EXPECT_THAT(network.take(), ElementsAre("available", "available"));
  EXPECT_EQ(network.counters.refused_instances.value(), 3u);
}

}  // namespace
}  // namespace someip
