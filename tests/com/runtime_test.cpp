#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <numeric>
#include <optional>

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
  EXPECT_THAT(client.received.all(), ElementsAre("one", "two", "three"));
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

}  // namespace
