/// What a node that uses services sends and reports, and when.
#include "tests/someip/discovery_node.h"

namespace someip {
namespace {

TEST_F(Discovery_node, what_begins_together_travels_together_and_an_offer_ends_its_search_alone) {
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

TEST_F(Discovery_node, what_the_process_does_in_a_row_travels_together_in_its_order) {
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

TEST_F(Discovery_node, a_search_sends_one_find_even_for_a_known_offer) {
  EXPECT_EQ(says(offered(), to_all), "0 found r1");
  search();
  search();
  stop_search();  // one of two
  EXPECT_EQ(until(9000), "80 all: find r*");
}

TEST_F(Discovery_node,
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

TEST_F(Discovery_node, each_offer_brings_one_renewal_without_initial_data) {
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
    Discovery_node,
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

TEST_F(Discovery_node,
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

TEST_F(Discovery_node,
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

TEST_F(Discovery_node, a_server_that_restarts_is_subscribed_anew) {
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

TEST_F(Discovery_node, an_instance_stays_with_its_provider_and_newcomers_past_a_bound_are_refused) {
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

}  // namespace
}  // namespace someip
