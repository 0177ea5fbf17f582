#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <thread>

#include "tests/com/test_network.h"

namespace {

using namespace std::chrono_literals;
using test::bytes;
using test::deployment;
using test::Finder;
using test::Seen;
using test::text;
using testing::ElementsAre;
using testing::HasSubstr;
using tq::com::make_runtime;
using tq::com::Payload;
using tq::com::Return_code;

constexpr int net = 41;
constexpr std::uint16_t echo = 1;
constexpr std::uint16_t set_value = 4;
constexpr std::uint16_t tick = 0x8001;
constexpr std::uint16_t value = 0x8002;

/// A provider with an echo and a client that has found it, on a network of two
/// nodes.
struct Network {
  explicit Network(const someip::Deployment& deployed = deployment(net))
      : server(make_runtime(deployed, "server")), client(make_runtime(deployed, "client")) {
    provider->set_method_handler(echo, [](Payload arguments) {
      return tq::com::Response{Return_code::ok, {arguments.begin(), arguments.end()}};
    });
  }
  /// Handlers and values must be set before.
  void connect() {
    provider->offer();
    ASSERT_EQ(finder.wait(1).size(), 1u);
    consumer = client->connect(finder.wait(1).front());
  }
  void subscribe(const std::string& element) {
    consumer->subscribe(
        element, [this](Payload payload) { received.add(text(payload)); },
        [this](bool active) { states.add(active); });
  }

  Seen<std::string> received;
  Seen<bool> states;
  std::unique_ptr<tq::com::Runtime> server;
  std::unique_ptr<tq::com::Provider> provider = server->provide("test::Service", "first");
  std::unique_ptr<tq::com::Runtime> client;
  Finder finder{*client, "test::Service"};
  std::unique_ptr<tq::com::Consumer> consumer;
};

/// On a machine so slow that the next offer comes before the acknowledgement, a
/// client subscribes anew and gets the present value once more.
std::vector<std::string> without_repetitions(std::vector<std::string> values) {
  values.erase(std::unique(values.begin(), values.end()), values.end());
  return values;
}

TEST(Runtime, two_consumers_of_one_process_both_get_the_value) {
  Network network;
  network.provider->update_field(value, bytes("shared"));
  network.connect();
  network.subscribe("value");
  ASSERT_TRUE(network.received.wait_for("shared"));
  ASSERT_TRUE(network.states.wait_for(true));
  auto other = network.client->connect(network.finder.wait(1).front());
  Seen<std::string> received;
  Seen<bool> states;
  other->subscribe(
      "value", [&](Payload payload) { received.add(text(payload)); },
      [&](bool active) { states.add(active); });
  EXPECT_TRUE(received.wait_for("shared"));
  EXPECT_TRUE(states.wait_for(true));
  other.reset();
  network.provider->update_field(value, bytes("next"));
  EXPECT_TRUE(network.received.wait_for("next"));
}

TEST(Runtime, a_slow_handler_delays_its_own_event_only_and_keeps_the_order) {
  Network network;
  network.connect();
  Seen<std::string> slow;
  std::promise<void> release;
  network.consumer->subscribe(
      "tick",
      [&, released = release.get_future().share()](Payload payload) {
        released.wait();
        slow.add(text(payload));
      },
      [&](bool active) { network.states.add(active); });
  ASSERT_TRUE(network.states.wait_count(1));
  network.subscribe("value");
  ASSERT_TRUE(network.states.wait_count(2));
  for (const char* n : {"1", "2", "3"}) {
    network.provider->send_event(tick, bytes(n));
    network.provider->update_field(value, bytes(n));
  }
  EXPECT_TRUE(network.received.wait_for("3"));
  EXPECT_THAT(without_repetitions(network.received.all()), ElementsAre("1", "2", "3"));
  EXPECT_TRUE(slow.all().empty());
  release.set_value();
  ASSERT_TRUE(slow.wait_count(3));
  EXPECT_THAT(slow.all(), ElementsAre("1", "2", "3"));
}

TEST(Runtime, notifications_past_the_bound_of_a_stuck_handler_are_refused) {
  Network network;
  network.connect();
  std::promise<void> release;
  std::atomic<int> count{0};
  network.consumer->subscribe(
      "tick",
      [&, released = release.get_future().share()](Payload) {
        released.wait();
        ++count;
      },
      [&](bool active) { network.states.add(active); });
  ASSERT_TRUE(network.states.wait_for(true));
  for (int i = 0; i < 200; ++i)
    network.provider->send_event(tick, bytes("x"));
  const auto refused = [&] { return test::counter(*network.client, "refusedNotifications"); };
  ASSERT_TRUE(test::eventually([&] { return refused() >= 200 - 65; }));
  release.set_value();
  ASSERT_TRUE(
      test::eventually([&] { return static_cast<std::uint64_t>(count) + refused() == 200; }));
  EXPECT_LE(count, 65);
}

TEST(Runtime, no_handler_runs_after_unsubscribe_has_returned) {
  Network network;
  network.connect();
  std::atomic<bool> stop{false};
  std::thread sender([&] {
    while (!stop)
      network.provider->send_event(tick, bytes("x"));
  });
  for (int round = 0; round < 50; ++round) {
    auto alive = std::make_unique<std::atomic<int>>(0);
    network.consumer->subscribe("tick", [&alive](Payload) { ++*alive; }, {});
    ASSERT_TRUE(test::eventually([&] { return *alive > 0; }));
    network.consumer->unsubscribe("tick");
    alive.reset();
  }
  stop = true;
  sender.join();
}

TEST(Runtime, handlers_may_call_back_and_end_their_own_subscription) {
  Network network;
  network.provider->update_field(value, bytes("v"));
  network.connect();
  Seen<std::string> answers;
  std::promise<void> subscribed;  // nobody may destroy the consumer before
  std::promise<void> gone;
  network.consumer->subscribe("value",
                              [&](Payload) {
                                network.consumer->unsubscribe("value");
                                network.consumer->call(echo, bytes("from inside"),
                                                       [&](Return_code, Payload payload) {
                                                         answers.add(text(payload));
                                                         subscribed.get_future().wait();
                                                         network.consumer.reset();
                                                         gone.set_value();
                                                       });
                              },
                              {});
  subscribed.set_value();
  ASSERT_EQ(gone.get_future().wait_for(10s), std::future_status::ready);
  EXPECT_THAT(answers.all(), ElementsAre("from inside"));
}

TEST(Runtime, every_call_ends_once_whatever_happens) {
  Network network;
  std::promise<void> release;
  network.provider->set_method_handler(set_value,
                                       [released = release.get_future().share()](Payload) {
                                         released.wait();
                                         return tq::com::Response{};
                                       });
  network.connect();
  Seen<Return_code> ended;
  network.consumer->call(set_value, {}, [&](Return_code code, Payload) { ended.add(code); });
  ASSERT_TRUE(ended.wait_for(Return_code::timeout));
  network.consumer->call(set_value, {}, [&](Return_code code, Payload) { ended.add(code); });
  network.consumer.reset();
  EXPECT_THAT(ended.all(), ElementsAre(Return_code::timeout, Return_code::not_reachable))
      << "before it is destroyed";
  release.set_value();
}

TEST(Runtime, requests_past_the_bound_of_slow_handlers_are_refused_and_the_others_answered) {
  auto limited = deployment(net, R"({"queuedRequests": 3, "pendingCalls": 20})");
  for (auto& node : limited.nodes)
    node.workers = 5;  // three stuck in handlers, two that receive
  Network network(limited);
  std::promise<void> release;
  network.provider->set_method_handler(echo, [released = release.get_future().share()](Payload) {
    released.wait();
    return tq::com::Response{};
  });
  network.connect();
  Seen<Return_code> ended;
  for (int i = 0; i < 25; ++i) {
    network.consumer->call(echo, {}, [&](Return_code code, Payload) { ended.add(code); });
  }
  EXPECT_EQ(std::ranges::count(ended.all(), Return_code::not_ok), 5) << "past pendingCalls";
  ASSERT_TRUE(
      test::eventually([&] { return test::counter(*network.server, "refusedRequests") == 17; }));
  release.set_value();
  ASSERT_TRUE(ended.wait_count(25));
  EXPECT_EQ(std::ranges::count(ended.all(), Return_code::ok), 3);
  EXPECT_EQ(std::ranges::count(ended.all(), Return_code::timeout), 17);
}

TEST(Runtime, names_that_are_unknown_and_addresses_that_are_taken_are_reported_with_the_manifest) {
  const auto runtime = make_runtime(deployment(net), "server");
  const auto message = [](auto&& work) -> std::string {
    try {
      work();
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "nothing thrown";
  };
  const auto provide = [&](const char* service, const char* specifier) {
    return message([&] { static_cast<void>(runtime->provide(service, specifier)); });
  };
  const auto make = [&](const char* node) {
    return message([&] { static_cast<void>(make_runtime(deployment(net), node)); });
  };
  EXPECT_THAT(provide("test::Nothing", "first"),
              HasSubstr("test manifest: services: \"test::Nothing\""));
  EXPECT_THAT(provide("test::Service", "none"), HasSubstr("none has the specifier \"none\""));
  EXPECT_THAT(provide("test::Service", "second"), HasSubstr("belongs to node \"client\""));
  EXPECT_THAT(make("nobody"), HasSubstr("nodes: expected a node \"nobody\""));
  EXPECT_THAT(make("server"),
              testing::AllOf(HasSubstr("test manifest"), HasSubstr("127.41.0.1"),
                             HasSubstr("nodes.server.address"), HasSubstr("taken")));
}

}  // namespace
