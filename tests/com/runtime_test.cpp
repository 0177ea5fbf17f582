#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <thread>

#include "tests/com/test_network.h"
#include "tests/support/error_of.h"
#include "tests/support/own_process.h"

namespace {

using namespace std::chrono_literals;
using test::bytes;
using test::deployment;
using test::error_of;
using test::Finder;
using test::Seen;
using test::Subscription;
using test::text;
using testing::ElementsAre;
using testing::HasSubstr;
using tq::com::make_runtime;
using tq::com::Payload;
using tq::com::Response;
using tq::com::Return_code;

constexpr std::uint16_t echo = 1, set_value = 4, tick = 0x8001, value = 0x8002;

/// A provider with an echo and a client that finds it, on a network of two nodes.
struct Network {
  explicit Network(const someip::Deployment& deployed = deployment())
      : server(make_runtime(deployed, "server")), client(make_runtime(deployed, "client")) {
    provider->set_method_handler(echo, [](Payload arguments) {
      return Response{Return_code::ok, {arguments.begin(), arguments.end()}};
    });
  }
  ~Network() { release = {}; }

  /// Handlers and values must be set before.
  void connect() {
    provider->offer();
    consumer = finder.connect();
  }
  /// The method's requests wait in their handlers.
  void hold(std::uint16_t method) {
    provider->set_method_handler(method, [released = released](Payload) {
      released.wait();
      return Response{};
    });
  }

  std::promise<void> release;  ///< lets go what the test holds
  std::shared_future<void> released = release.get_future().share();
  std::unique_ptr<tq::com::Runtime> server;
  std::unique_ptr<tq::com::Provider> provider = server->provide("test::Service", "first");
  std::unique_ptr<tq::com::Runtime> client;
  Finder finder{*client, "test::Service"};
  std::unique_ptr<tq::com::Consumer> consumer;
};

TEST(Runtime, two_consumers_of_one_process_both_get_the_value) {
  Subscription first;
  Subscription second;
  Network network;
  network.provider->notify(value, bytes("shared"));
  network.connect();
  first.start(*network.consumer, "value");
  ASSERT_TRUE(first.received.wait_for("shared")) << "before the second comes";
  auto other = network.finder.connect();
  second.start(*other, "value");
  EXPECT_TRUE(second.received.wait_for("shared"));
  other.reset();
  for (int n = 0; n < 100; ++n) {
    network.provider->notify(value, bytes(std::to_string(n)));
    ASSERT_TRUE(first.received.wait_for(std::to_string(n)))
        << "whenever the other's end is noticed";
  }
}

TEST(Runtime, the_end_of_a_subscription_leaves_connection_and_multicast_group_to_another) {
  for (const auto transport : {someip::Transport::tcp, someip::Transport::udp}) {
    Subscription values;
    auto deployed = deployment(R"({"queuedNotifications": 1000})");
    auto& service = deployed.services.front();
    auto& instance = service.instances.front();
    auto& field = service.fields.front();
    service.events.front().transport = field.transport = transport;
    instance.tcp_port = 31001;
    if (transport == someip::Transport::udp) {
      field.event_group = 1;
      instance.multicast = {
          {1, boost::asio::ip::make_address("239.255." + std::to_string(test::network()) + ".2"),
           31002, 1}};
    }
    Network network(deployed);
    network.connect();
    values.start(*network.consumer, "value");
    int last = 0;
    EXPECT_TRUE(test::eventually([&] {
      if (last % 50 == 0) {
        network.consumer->subscribe("tick", [](Payload) {}, {});
        network.consumer->unsubscribe("tick");
      }
      network.provider->notify(value, bytes(std::to_string(++last)));
      return last == 300;  // longer than a renewal takes
    }));
    EXPECT_TRUE(values.received.wait_for("300"));
    EXPECT_GE(values.received.all().size(), 300U) << "none is missing";
    EXPECT_LE(test::counter(*network.client, "tcpConnected"), 1U);
  }
}

TEST(Runtime, the_late_end_of_a_provider_does_not_end_its_successor) {
  Subscription values;
  Network network;
  network.connect();
  const auto successor = network.server->provide("test::Service", "first");
  successor->offer();
  network.provider.reset();
  const auto heard = [&] { return test::counter(*network.client, "discoveryReceived"); };
  ASSERT_TRUE(test::eventually([&, offers = heard() + 3] { return heard() >= offers; }));
  values.start(*network.consumer, "value");
  successor->notify(value, bytes("new"));
  EXPECT_TRUE(values.received.wait_for("new"));
}

TEST(Runtime, a_handler_that_sticks_holds_up_its_own_event_only_and_gets_the_newest_of_it) {
  Subscription ticks, values;
  Network network;
  network.connect();
  ticks.start(*network.consumer, "tick", [&](const std::string& payload) {
    if (payload == "0") network.released.wait();
  });
  values.start(*network.consumer, "value");
  network.provider->notify(tick, bytes("go on"));
  ASSERT_TRUE(ticks.received.wait_for("go on"));
  network.provider->notify(tick, bytes("0"));
  ASSERT_TRUE(ticks.received.wait_for("0")) << "stuck before the others come";
  for (int n = 1; n < 200; ++n) {
    network.provider->notify(tick, bytes(std::to_string(n)));
    if (n <= 3) network.provider->notify(value, bytes(std::to_string(n)));
  }
  EXPECT_TRUE(values.received.wait_for("3"));
  // On a machine so slow that the next offer comes before the acknowledgement, a client subscribes
  // anew and gets the present value once more.
  auto seen = values.received.all();
  seen.erase(std::unique(seen.begin(), seen.end()), seen.end());
  EXPECT_THAT(seen, ElementsAre("1", "2", "3"));
  EXPECT_THAT(ticks.received.all(), ElementsAre("go on", "0"));

  const auto counted = [&](const char* name) { return test::counter(*network.client, name); };
  ASSERT_TRUE(test::eventually([&] { return counted("notificationsDisplaced") == 200 - 65; }));
  const auto waited_enough = std::chrono::steady_clock::now() + 150ms;
  ASSERT_TRUE(test::eventually([&] { return std::chrono::steady_clock::now() > waited_enough; }));
  network.release.set_value();
  std::vector<std::string> expected{"go on", "0"};
  for (int n = 200 - 64; n < 200; ++n)
    expected.push_back(std::to_string(n));
  ASSERT_TRUE(ticks.received.wait_count(expected.size()));
  EXPECT_EQ(ticks.received.all(), expected) << "the stuck one and the newest, in order";
  EXPECT_EQ(counted("notificationsDisplaced"), 200U - 65);
  EXPECT_GE(counted("notificationsLate"), 64U);
}

TEST(Runtime, a_stuck_handler_is_told_the_newest_result_and_state_and_none_in_between) {
  Seen<std::size_t> found, held_found, ended_found;
  Seen<bool> held_states;
  auto deployed = deployment();
  for (auto& node : deployed.nodes)
    node.workers = 5;  // three stuck in handlers
  Network network(deployed);
  network.connect();
  const auto search = [&](const tq::com::Find_handler& handler) {
    return network.client->start_find_service("test::Service", std::nullopt, handler);
  };
  const auto held = search([&](const auto& instances) {
    held_found.add(instances.size());
    network.released.wait();
  });
  tq::com::Find_token ended{};
  ended = search([&](const auto& instances) {
    ended_found.add(instances.size());
    network.released.wait();
    network.client->stop_find_service(ended);
  });
  // Told after the ones that are held.
  const auto free = search([&](const auto& instances) { found.add(instances.size()); });
  Subscription values;
  values.start(*network.consumer, "value");
  network.consumer->subscribe(
      "tick", [](Payload) {},
      [&](bool active) {
        held_states.add(active);
        network.released.wait();
      });
  ASSERT_TRUE(held_found.wait_count(1) && ended_found.wait_count(1) && held_states.wait_count(1));
  for (int round = 0; round < 9; ++round) {
    const std::size_t results = found.all().size();
    const std::size_t states = values.states.all().size();
    round % 2 == 0 ? network.provider->stop_offer() : network.provider->offer();
    ASSERT_TRUE(found.wait_count(results + 1) && values.states.wait_count(states + 1));
  }
  network.release.set_value();
  ASSERT_TRUE(held_found.wait_count(2) && held_states.wait_count(2));
  network.client->stop_find_service(free);
  network.client->stop_find_service(held);
  EXPECT_THAT(held_found.all(), ElementsAre(1, 0));
  EXPECT_THAT(ended_found.all(), ElementsAre(1)) << "after a stop from inside";
  network.consumer.reset();
  EXPECT_THAT(held_states.all(), ElementsAre(true, false));
}

TEST(Runtime, no_handler_runs_after_its_subscription_has_ended_or_been_replaced) {
  Network network;
  network.connect();
  const std::jthread sender([&](const std::stop_token& stop) {
    while (!stop.stop_requested())
      network.provider->notify(tick, bytes("x"));
  });
  for (int round = 0; round < 50; ++round) {
    auto alive = std::make_unique<std::atomic<int>>(0);
    network.consumer->subscribe("tick", [&alive](Payload) { ++*alive; }, {});
    ASSERT_TRUE(test::eventually([&] { return *alive > 0; }));
    if (round % 2 == 0) {
      network.consumer->unsubscribe("tick");
    } else {
      network.consumer->subscribe("tick", [](Payload) {}, {});
    }
    alive.reset();
  }
}

TEST(Runtime, handlers_may_call_back_subscribe_anew_and_end_it_all_and_leave_nothing_behind) {
  const auto token = std::make_shared<int>();  // each subscription's handler holds it
  Seen<std::string> answers;
  std::promise<void> asked;
  Network network;
  network.provider->notify(value, bytes("v"));
  network.connect();
  const auto end = [&](Return_code, Payload payload) {
    asked.get_future().wait();  // nobody may destroy the consumer while it is being asked
    EXPECT_TRUE(test::eventually([&] { return token.use_count() < 6; })) << token.use_count();
    network.consumer.reset();
    answers.add(text(payload));
  };
  std::function<void(int)> subscribe = [&](int round) {
    network.consumer->subscribe("value",
                                [&, round, token](Payload) {
                                  network.released.wait();  // until subscribe() has returned
                                  network.consumer->unsubscribe("value");
                                  if (round < 20) return subscribe(round + 1);
                                  network.consumer->call(echo, bytes("from inside"), end);
                                  asked.set_value();
                                },
                                {});
  };
  subscribe(1);
  network.release.set_value();
  ASSERT_TRUE(answers.wait_for("from inside"));
  EXPECT_TRUE(test::eventually([&] { return token.use_count() < 2; })) << token.use_count();
}

TEST(Runtime, leaves_no_descriptor_to_child_processes) {
  const auto of_silent_peers = [] {
    std::size_t count = 0;
    for (int descriptor = 3; descriptor < 200; ++descriptor) {
      unsigned limit = 0;
      socklen_t size = sizeof limit;
      ::getsockopt(descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT, &limit, &size);
      count += limit != 0 ? 1 : 0;
    }
    return count;
  };
  const auto before = test::inherited();
  auto deployed = deployment();
  auto& service = deployed.services.front();
  service.methods.front().transport = someip::Transport::tcp;
  service.instances.front().tcp_port = 31001;
  Seen<Return_code> ended;
  Network network(deployed);
  network.connect();
  network.consumer->call(echo, {}, [&](Return_code code, Payload) { ended.add(code); });
  ASSERT_TRUE(ended.wait_for(Return_code::ok)) << "with a connection at both ends";
  EXPECT_EQ(test::inherited(), before);
  EXPECT_EQ(of_silent_peers(), 2U) << "connections that notice the end of their peer";
}

TEST(Runtime, every_call_ends_once_whatever_happens) {
  Seen<Return_code> ended;
  Network network;
  network.hold(set_value);
  network.connect();
  const auto call = [&] {
    network.consumer->call(set_value, {}, [&](Return_code code, Payload) { ended.add(code); });
  };
  for (const std::size_t count : {1U, 2U}) {
    call();
    ASSERT_TRUE(ended.wait_count(count));
  }
  call();
  network.consumer.reset();
  EXPECT_THAT(ended.all(),
              ElementsAre(Return_code::timeout, Return_code::timeout, Return_code::not_reachable))
      << "before it is destroyed";
}

TEST(Runtime, requests_past_the_bound_of_slow_handlers_are_refused_and_the_others_answered) {
  for (const char* bound : {R"("queuedRequests": 3)", R"("queuedRequestBytes": 1500)"}) {
    auto limited = deployment(std::string("{") + bound + R"(, "pendingCalls": 20})");
    for (auto& node : limited.nodes)
      node.workers = 5;  // three stuck in handlers, two that receive
    Seen<Return_code> ended;
    Network network(limited);
    network.hold(echo);
    network.connect();
    const auto arguments = bytes(std::string(500, '-'));
    for (int i = 0; i < 25; ++i)
      network.consumer->call(echo, arguments, [&](Return_code code, Payload) { ended.add(code); });
    const auto count = [&](Return_code code) { return std::ranges::count(ended.all(), code); };
    EXPECT_EQ(count(Return_code::not_ok), 5) << "past pendingCalls";
    ASSERT_TRUE(
        test::eventually([&] { return test::counter(*network.server, "refusedRequests") == 17; }));
    network.release.set_value();
    ASSERT_TRUE(ended.wait_count(25));
    EXPECT_EQ(count(Return_code::ok), 3);
    EXPECT_EQ(count(Return_code::timeout), 17);
  }
}

TEST(Runtime, names_that_are_unknown_are_reported_with_the_manifest) {
  const auto runtime = make_runtime(deployment(), "server");
  const auto provide = [&](const char* service, const char* specifier) {
    return error_of([&] { static_cast<void>(runtime->provide(service, specifier)); });
  };
  EXPECT_THAT(provide("test::Nothing", "first"),
              HasSubstr("test manifest: services: \"test::Nothing\""));
  EXPECT_THAT(provide("test::Service", "none"), HasSubstr("none has the specifier \"none\""));
  EXPECT_THAT(provide("test::Service", "second"), HasSubstr("belongs to node \"client\""));
  const auto require = [&](tq::com::Element element, const tq::com::Runtime& of) {
    return error_of([&] { of.require("test::Service", {&element, 1}); });
  };
  using enum tq::com::Element_kind;
  EXPECT_THAT(require({method, "tick"}, *runtime),
              HasSubstr("test manifest: services.test::Service.methods: expected \"tick\""));
  auto silent = deployment();
  silent.services.front().fields.front().notifier.reset();
  EXPECT_THAT(require({field, "value"}, *make_runtime(silent, "client")),
              HasSubstr(".fields.value: expected \"notifier\""));
  EXPECT_THAT(error_of([] { static_cast<void>(make_runtime(deployment(), "nobody")); }),
              HasSubstr("nodes: expected a node \"nobody\""));
}

}  // namespace
