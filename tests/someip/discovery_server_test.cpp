/// What a node that provides sends and reports, and when.
#include <ctime>
#include <set>

#include "tests/someip/discovery_node.h"

namespace someip {
namespace {

TEST_F(Discovery_node, offers_wait_repeat_with_a_delay_that_doubles_and_go_on_cyclically) {
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

TEST_F(Discovery_node, initial_delays_and_those_of_answers_are_drawn_from_their_range_each_time) {
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

TEST_F(Discovery_node, multicast_finds_are_answered_after_a_delay_and_others_at_once) {
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

TEST_F(Discovery_node, sessions_and_reboot_flag_tell_a_restarted_client_from_lost_messages) {
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

TEST_F(Discovery_node,
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

TEST_F(Discovery_node, a_subscription_counts_from_its_own_begin_and_ends_the_list_of_refusals) {
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

TEST_F(Discovery_node, clients_of_the_unix_socket_need_no_place_on_a_list_no_link_and_no_renewal) {
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

TEST_F(Discovery_node, a_find_costs_no_more_when_many_answers_wait) {
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

}  // namespace
}  // namespace someip
