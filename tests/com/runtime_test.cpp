#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <optional>
#include <thread>

#include "ara/log/capture.h"
#include "tests/com/test_network.h"

namespace {

using namespace std::chrono_literals;
using test::bytes;
using test::deployment;
using test::Finder;
using test::Seen;
using test::text;
using testing::ElementsAre;
using tq::com::make_runtime;
using tq::com::Payload;
using tq::com::Return_code;

constexpr int net = 41;
constexpr std::uint16_t echo = 1;
constexpr std::uint16_t poke = 2;
constexpr std::uint16_t get_value = 3;
constexpr std::uint16_t set_value = 4;
constexpr std::uint16_t tick = 0x8001;
constexpr std::uint16_t value = 0x8002;
constexpr std::uint16_t big = 0x8003;

struct Server {
  explicit Server(const std::string& service = "test::Service",
                  const std::string& specifier = "first",
                  const std::string& node = "server")
      : runtime(make_runtime(deployment(net), node)),
        provider(runtime->provide(service, specifier)) {
    provider->set_method_handler(echo, [](Payload arguments) {
      return tq::com::Response{Return_code::ok, {arguments.begin(), arguments.end()}};
    });
    provider->set_method_handler(poke, [this](Payload arguments) {
      poked.add(text(arguments));
      return tq::com::Response{};
    });
    provider->set_method_handler(set_value, [this](Payload arguments) {
      provider->update_field(value, arguments);
      return tq::com::Response{Return_code::ok, {arguments.begin(), arguments.end()}};
    });
  }
  Seen<std::string> poked;
  std::unique_ptr<tq::com::Runtime> runtime;
  std::unique_ptr<tq::com::Provider> provider;
};

struct Client {
  explicit Client(const std::string& service = "test::Service",
                  const std::string& node = "client",
                  std::optional<std::uint16_t> instance = {})
      : runtime(make_runtime(deployment(net), node)),
        finder(std::make_unique<Finder>(*runtime, service, instance)) {}

  void connect() {
    const auto found = finder->wait(1);
    ASSERT_EQ(found.size(), 1u);
    consumer = runtime->connect(found.front());
  }
  void subscribe(const std::string& element) {
    consumer->subscribe(
        element, [this](Payload payload) { received.add(text(payload)); },
        [this](bool active) { states.add(active); });
  }
  std::pair<Return_code, std::string> call(std::uint16_t method, const std::string& arguments) {
    Seen<std::pair<Return_code, std::string>> answers;
    consumer->call(method, bytes(arguments), [&](Return_code code, Payload payload) {
      answers.add({code, text(payload)});
    });
    if (!answers.wait_count(1)) return {Return_code::timeout, "no handler called"};
    return answers.all().front();
  }

  Seen<std::string> received;
  Seen<bool> states;
  std::unique_ptr<tq::com::Runtime> runtime;
  std::unique_ptr<Finder> finder;
  std::unique_ptr<tq::com::Consumer> consumer;
};

/// On a machine so slow that the next offer comes before the acknowledgement, a client subscribes
/// anew and gets the present value once more.
std::vector<std::string> without_repetitions(std::vector<std::string> values) {
  const auto repeated = std::ranges::unique(values);
  values.erase(repeated.begin(), repeated.end());
  return values;
}

TEST(Runtime, a_field_gives_its_value_at_once_and_then_each_change) {
  Server server;
  server.provider->update_field(value, bytes("one"));
  server.provider->offer();
  Client client;
  client.connect();
  client.subscribe("value");
  ASSERT_TRUE(client.states.wait_for(true));
  ASSERT_TRUE(client.received.wait_for("one"));
  for (const char* next : {"two", "three"})
    server.provider->update_field(value, bytes(next));
  ASSERT_TRUE(client.received.wait_for("three"));
  EXPECT_THAT(without_repetitions(client.received.all()), ElementsAre("one", "two", "three"));
}

TEST(Runtime, a_field_that_has_no_value_yet_is_missed_in_the_log) {
  const ara::log::Capture log;
  Server server;
  server.provider->offer();
  Client client;
  client.connect();
  client.subscribe("value");
  EXPECT_TRUE(
      log.WaitFor("Notify enabled but Update not called; Event_id= " + std::to_string(value)));
  server.provider->update_field(value, bytes("first"));
  EXPECT_TRUE(client.received.wait_for("first"));
}

TEST(Runtime, an_event_comes_only_when_it_happens) {
  Server server;
  server.provider->send_event(tick, bytes("before"));
  server.provider->offer();
  Client client;
  client.connect();
  client.subscribe("tick");
  ASSERT_TRUE(client.states.wait_for(true));
  server.provider->send_event(tick, bytes("now"));
  ASSERT_TRUE(client.received.wait_for("now"));
  EXPECT_THAT(client.received.all(), ElementsAre("now"));
}

TEST(Runtime, a_consumer_that_starts_first_finds_the_provider_when_it_comes) {
  Client client;
  ASSERT_TRUE(client.finder->wait_none());
  Server server;
  server.provider->update_field(value, bytes("late"));
  server.provider->offer();
  client.connect();
  client.subscribe("value");
  EXPECT_TRUE(client.received.wait_for("late"));
}

TEST(Runtime, methods_answer_and_errors_have_their_codes) {
  Server server;
  server.provider->offer();
  Client client;
  client.connect();
  EXPECT_EQ(client.call(echo, "hello"), std::pair(Return_code::ok, std::string("hello")));
  EXPECT_EQ(client.call(get_value, "").first, Return_code::not_ok) << "no value yet";
  EXPECT_EQ(client.call(set_value, "set"), std::pair(Return_code::ok, std::string("set")));
  EXPECT_EQ(client.call(get_value, ""), std::pair(Return_code::ok, std::string("set")));
  EXPECT_EQ(client.call(0x77, "").first, Return_code::unknown_method);
  EXPECT_EQ(client.call(poke, "").first, Return_code::wrong_message_type);
  client.consumer->call_no_return(poke, bytes("gently"));
  EXPECT_TRUE(server.poked.wait_for("gently"));
}

std::string long_text(std::size_t size) {
  std::string result(size, ' ');
  for (std::size_t i = 0; i < size; ++i)
    result[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
  return result;
}

TEST(Runtime, values_longer_than_a_datagram_travel_in_segments) {
  Server server;
  const std::string satellites = long_text(5000);
  server.provider->update_field(big, bytes(satellites));
  server.provider->offer();
  Client client;
  client.connect();
  client.subscribe("big");
  ASSERT_TRUE(client.received.wait_for(satellites)) << "as the initial value";
  server.provider->update_field(big, bytes(long_text(100'000)));
  EXPECT_TRUE(client.received.wait_for(long_text(100'000))) << "as a change";
  EXPECT_EQ(client.call(echo, long_text(9999)).second, long_text(9999)) << "both ways of a call";
  EXPECT_GT(test::counter(*client.runtime, "segmentsReceived"), 70u);
}

TEST(Runtime, a_stopped_offer_ends_the_subscription_and_its_return_brings_the_value_again) {
  Server server;
  server.provider->update_field(value, bytes("first life"));
  server.provider->offer();
  Client client;
  client.connect();
  client.subscribe("value");
  ASSERT_TRUE(client.received.wait_for("first life"));
  server.provider->stop_offer();
  ASSERT_TRUE(client.states.wait_for(false));
  ASSERT_TRUE(client.finder->wait_none());
  EXPECT_EQ(client.call(echo, "").first, Return_code::not_reachable);
  server.provider->update_field(value, bytes("second life"));
  server.provider->offer();
  EXPECT_TRUE(client.received.wait_for("second life"));
  EXPECT_EQ(client.finder->wait(1).size(), 1u);
}

TEST(Runtime, a_provider_process_that_ends_and_starts_again_is_found_again) {
  Client client;
  for (const std::string life : {"one", "two", "three"}) {
    auto server = std::make_unique<Server>();
    server->provider->update_field(value, bytes(life));
    server->provider->offer();
    ASSERT_EQ(client.finder->wait(1).size(), 1u) << life;
    if (!client.consumer) {
      client.connect();
      client.subscribe("value");
    }
    ASSERT_TRUE(client.received.wait_for(life)) << life;
    server.reset();
    ASSERT_TRUE(client.finder->wait_none()) << life;
  }
}

TEST(Runtime, a_consumer_process_that_starts_again_gets_the_value_again) {
  Server server;
  server.provider->update_field(value, bytes("still here"));
  server.provider->offer();
  for (int life = 0; life < 3; ++life) {
    Client client;
    client.connect();
    client.subscribe("value");
    ASSERT_TRUE(client.received.wait_for("still here")) << life;
  }
}

TEST(Runtime, instances_are_told_apart_by_their_endpoints) {
  Server first("test::Service", "first"), third("test::Service", "third", "server2");
  auto second = first.runtime->provide("test::Service", "second");
  first.provider->update_field(value, bytes("first"));
  second->update_field(value, bytes("second"));
  third.provider->update_field(value, bytes("third"));
  first.provider->offer();
  Client client;
  ASSERT_EQ(client.finder->wait(1).size(), 1u);
  second->offer();
  ASSERT_EQ(client.finder->wait(2).size(), 2u);
  third.provider->offer();
  const auto found = client.finder->wait(3);
  ASSERT_EQ(found.size(), 3u);
  Seen<std::string> received;
  std::vector<std::unique_ptr<tq::com::Consumer>> consumers;
  std::vector<std::uint16_t> order;
  for (const auto& instance : found) {
    order.push_back(instance.instance);
    consumers.push_back(client.runtime->connect(instance));
    consumers.back()->subscribe("value",
                                [&received, id = instance.instance](Payload payload) {
                                  received.add(std::to_string(id) + text(payload));
                                },
                                {});
  }
  EXPECT_THAT(order, ElementsAre(1, 2, 3)) << "in the order of their first offer";
  ASSERT_TRUE(received.wait_count(3));
  EXPECT_THAT(received.all(), testing::UnorderedElementsAre("1first", "2second", "3third"));
  Client one("test::Service", "client2", 2);
  one.connect();
  one.subscribe("value");
  EXPECT_TRUE(one.received.wait_for("second"));
}

TEST(Runtime, two_consumers_of_one_process_both_get_the_value) {
  Server server;
  server.provider->update_field(value, bytes("shared"));
  server.provider->offer();
  Client client;
  client.connect();
  client.subscribe("value");
  ASSERT_TRUE(client.received.wait_for("shared"));
  auto other = client.runtime->connect(client.finder->wait(1).front());
  Seen<std::string> received;
  Seen<bool> states;
  other->subscribe(
      "value", [&](Payload payload) { received.add(text(payload)); },
      [&](bool active) { states.add(active); });
  EXPECT_TRUE(received.wait_for("shared"));
  EXPECT_TRUE(states.wait_for(true));
  other.reset();
  server.provider->update_field(value, bytes("next"));
  EXPECT_TRUE(client.received.wait_for("next"));
}

TEST(Runtime, a_slow_handler_delays_its_own_event_only_and_keeps_the_order) {
  Server server;
  server.provider->offer();
  Client client;
  client.connect();
  Seen<std::string> slow;
  std::promise<void> release;
  client.consumer->subscribe(
      "tick",
      [&, released = release.get_future().share()](Payload payload) {
        released.wait();
        slow.add(text(payload));
      },
      [&](bool active) { client.states.add(active); });
  ASSERT_TRUE(client.states.wait_count(1));
  client.subscribe("value");
  ASSERT_TRUE(client.states.wait_count(2));
  for (const char* n : {"1", "2", "3"}) {
    server.provider->send_event(tick, bytes(n));
    server.provider->update_field(value, bytes(n));
  }
  EXPECT_TRUE(client.received.wait_for("3"));
  EXPECT_THAT(without_repetitions(client.received.all()), ElementsAre("1", "2", "3"));
  EXPECT_TRUE(slow.all().empty());
  release.set_value();
  ASSERT_TRUE(slow.wait_count(3));
  EXPECT_THAT(slow.all(), ElementsAre("1", "2", "3"));
}

TEST(Runtime, notifications_past_the_bound_of_a_stuck_handler_are_refused) {
  Server server;
  server.provider->offer();
  Client client;
  client.connect();
  std::promise<void> release;
  std::atomic<int> count{0};
  client.consumer->subscribe(
      "tick",
      [&, released = release.get_future().share()](Payload) {
        released.wait();
        ++count;
      },
      [&](bool active) { client.states.add(active); });
  ASSERT_TRUE(client.states.wait_for(true));
  for (int i = 0; i < 200; ++i)
    server.provider->send_event(tick, bytes("x"));
  const auto refused = [&] { return test::counter(*client.runtime, "refusedNotifications"); };
  ASSERT_TRUE(test::eventually([&] { return refused() >= 200 - 65; }));
  release.set_value();
  ASSERT_TRUE(
      test::eventually([&] { return static_cast<std::uint64_t>(count) + refused() == 200; }));
  EXPECT_LE(count, 65);
}

TEST(Runtime, no_handler_runs_after_unsubscribe_has_returned) {
  Server server;
  server.provider->offer();
  Client client;
  client.connect();
  std::atomic<bool> stop{false};
  std::thread sender([&] {
    while (!stop)
      server.provider->send_event(tick, bytes("x"));
  });
  for (int round = 0; round < 50; ++round) {
    auto alive = std::make_unique<std::atomic<int>>(0);
    client.consumer->subscribe("tick", [&alive](Payload) { ++*alive; }, {});
    ASSERT_TRUE(test::eventually([&] { return *alive > 0; }));
    client.consumer->unsubscribe("tick");
    alive.reset();
  }
  stop = true;
  sender.join();
}

TEST(Runtime, handlers_may_call_back_and_end_their_own_subscription) {
  Server server;
  server.provider->update_field(value, bytes("v"));
  server.provider->offer();
  Client client;
  client.connect();
  Seen<std::string> answers;
  std::promise<void> subscribed;  // nobody may destroy the consumer before
  std::promise<void> gone;
  client.consumer->subscribe("value",
                             [&](Payload) {
                               client.consumer->unsubscribe("value");
                               client.consumer->call(echo, bytes("from inside"),
                                                     [&](Return_code, Payload payload) {
                                                       answers.add(text(payload));
                                                       subscribed.get_future().wait();
                                                       client.consumer.reset();
                                                       gone.set_value();
                                                     });
                             },
                             {});
  subscribed.set_value();
  ASSERT_EQ(gone.get_future().wait_for(10s), std::future_status::ready);
  EXPECT_THAT(answers.all(), ElementsAre("from inside"));
}

TEST(Runtime, every_call_ends_once_whatever_happens) {
  Server server;
  std::promise<void> release;
  server.provider->set_method_handler(set_value,
                                      [released = release.get_future().share()](Payload) {
                                        released.wait();
                                        return tq::com::Response{};
                                      });
  server.provider->offer();
  Client client;
  client.connect();
  EXPECT_EQ(client.call(set_value, "").first, Return_code::timeout);
  Seen<Return_code> ended;
  client.consumer->call(set_value, {}, [&](Return_code code, Payload) { ended.add(code); });
  client.consumer.reset();
  EXPECT_THAT(ended.all(), ElementsAre(Return_code::not_reachable)) << "before it is destroyed";
  release.set_value();
}

TEST(Runtime, requests_past_the_bound_of_slow_handlers_are_refused_and_the_others_answered) {
  auto limited = deployment(net, R"({"queuedRequests": 3, "pendingCalls": 20})");
  for (auto& node : limited.nodes)
    node.workers = 5;  // three stuck in handlers, two that receive
  const auto server = make_runtime(limited, "server");
  const auto provider = server->provide("test::Service", "first");
  std::promise<void> release;
  provider->set_method_handler(echo, [released = release.get_future().share()](Payload) {
    released.wait();
    return tq::com::Response{};
  });
  provider->offer();
  const auto runtime = make_runtime(limited, "client");
  const Finder finder(*runtime, "test::Service");
  ASSERT_EQ(finder.wait(1).size(), 1u);
  const auto consumer = runtime->connect(finder.wait(1).front());
  Seen<Return_code> ended;
  for (int i = 0; i < 25; ++i) {
    consumer->call(echo, {}, [&](Return_code code, Payload) { ended.add(code); });
  }
  EXPECT_EQ(std::ranges::count(ended.all(), Return_code::not_ok), 5) << "past pendingCalls";
  ASSERT_TRUE(test::eventually([&] { return test::counter(*server, "refusedRequests") == 17; }));
  release.set_value();
  ASSERT_TRUE(ended.wait_count(25));
  EXPECT_EQ(std::ranges::count(ended.all(), Return_code::ok), 3);
  EXPECT_EQ(std::ranges::count(ended.all(), Return_code::timeout), 17);
}

TEST(Runtime, a_second_process_on_the_same_address_is_told_which_key_is_wrong) {
  const auto first = make_runtime(deployment(net), "server");
  try {
    const auto second = make_runtime(deployment(net), "server");
    FAIL() << "two nodes on one address";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(),
                testing::AllOf(testing::HasSubstr("test manifest"),
                               testing::HasSubstr("nodes.server.address"),
                               testing::HasSubstr("127.41.0.1"), testing::HasSubstr("taken")));
  }
}

TEST(Runtime, unknown_names_are_reported_with_the_manifest) {
  const auto runtime = make_runtime(deployment(net), "server");
  const auto message = [](auto&& work) -> std::string {
    try {
      work();
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "nothing thrown";
  };
  EXPECT_THAT(message([&] { static_cast<void>(runtime->provide("test::Nothing", "first")); }),
              testing::HasSubstr("test manifest: services: \"test::Nothing\""));
  EXPECT_THAT(message([&] { static_cast<void>(runtime->provide("test::Service", "none")); }),
              testing::HasSubstr("none has the specifier \"none\""));
  EXPECT_THAT(message([&] { static_cast<void>(runtime->provide("test::Service", "third")); }),
              testing::HasSubstr("belongs to node \"server2\""));
  EXPECT_THAT(message([&] { static_cast<void>(make_runtime(deployment(net), "nobody")); }),
              testing::HasSubstr("nodes: expected a node \"nobody\""));
}

TEST(Tcp, fields_events_and_methods_share_one_connection) {
  Server server("test::Stream", "stream");
  server.provider->update_field(value, bytes("one"));
  server.provider->update_field(big, bytes(long_text(200'000)));
  server.provider->offer();
  Client client("test::Stream");
  client.connect();
  for (const char* element : {"value", "tick", "big"})
    client.subscribe(element);
  ASSERT_TRUE(client.states.wait_count(3));
  ASSERT_TRUE(client.received.wait_for("one"));
  ASSERT_TRUE(client.received.wait_for(long_text(200'000)));
  server.provider->send_event(tick, bytes("tick"));
  ASSERT_TRUE(client.received.wait_for("tick"));
  EXPECT_EQ(client.call(echo, long_text(50'000)).second, long_text(50'000));
  client.consumer->call_no_return(poke, bytes("poke"));
  EXPECT_TRUE(server.poked.wait_for("poke"));
  EXPECT_EQ(test::counter(*server.runtime, "tcpAccepted"), 1u);
}

TEST(Tcp, a_call_opens_the_connection_when_nothing_is_subscribed) {
  Server server("test::Stream", "stream");
  server.provider->offer();
  Client client("test::Stream");
  client.connect();
  EXPECT_EQ(client.call(echo, "first").second, "first");
}

TEST(Tcp, subscriptions_come_back_with_the_provider) {
  Client client("test::Stream");
  for (const std::string life : {"one", "two"}) {
    Server server("test::Stream", "stream");
    server.provider->update_field(value, bytes(life));
    server.provider->offer();
    if (!client.consumer) {
      client.connect();
      client.subscribe("value");
    }
    ASSERT_TRUE(client.received.wait_for(life));
  }
}

TEST(Multicast, replaces_unicast_from_the_threshold_on_and_goes_back) {
  Server server("test::Group", "group");
  server.provider->offer();
  auto first = std::make_unique<Client>("test::Group", "client");
  auto second = std::make_unique<Client>("test::Group", "client2");
  first->connect();
  first->subscribe("tick");
  ASSERT_TRUE(first->states.wait_for(true));
  server.provider->send_event(tick, bytes("to one"));
  ASSERT_TRUE(first->received.wait_for("to one"));
  second->connect();
  second->subscribe("tick");
  ASSERT_TRUE(second->states.wait_for(true));
  const auto sent = test::counter(*server.runtime, "notificationsSent");
  server.provider->send_event(tick, bytes("to the group"));
  EXPECT_TRUE(first->received.wait_for("to the group"));
  EXPECT_TRUE(second->received.wait_for("to the group"));
  // Counted once it has been sent, which may be later than it was received.
  EXPECT_TRUE(test::eventually([&] {
    return test::counter(*server.runtime, "notificationsSent") == sent + 1;
  })) << "one for both";
  first.reset();
  ASSERT_TRUE(test::eventually([&] {
    server.provider->send_event(tick, bytes("to one again"));
    return second->received.all().size() > 1;
  }));
}

}  // namespace
