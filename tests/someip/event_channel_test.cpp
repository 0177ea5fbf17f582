#include "platform/someip/node/event_channel.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/someip/base/counters.h"

namespace someip {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

/// A subscriber that keeps what it gets.
struct Kept final : Stream {
  void send(const Header& header, Bytes payload) override {
    const std::string value(reinterpret_cast<const char*>(payload.data()), payload.size());
    if (on_send) on_send(value);
    sessions.push_back(header.session);
    values.push_back(value);
    threads.push_back(std::this_thread::get_id());
  }
  std::function<void(const std::string&)> on_send;
  std::vector<std::uint16_t> sessions;
  std::vector<std::string> values;
  std::vector<std::thread::id> threads;
};

class Field : public testing::Test {
 protected:
  void notify(std::string_view value) { channel_.notify(std::as_bytes(std::span{value})); }
  static Event_channel::Targets targets(const std::vector<std::shared_ptr<Kept>>& subscribers) {
    auto made = std::make_shared<Event_targets>();
    made->streams.assign(subscribers.begin(), subscribers.end());
    return made;
  }
  void subscribe(const std::shared_ptr<Kept>& subscriber) {
    channel_.hold(targets({subscriber}));
    channel_.send_initial(targets({subscriber}));
    channel_.release();
  }
  static bool waits(const std::future<void>& publisher) {
    return publisher.wait_for(20ms) == std::future_status::timeout;
  }

  Counters counters_;
  std::vector<std::uint16_t> missed_;  ///< events without a value that a client subscribed to
  Event_channel channel_{
      1, 0x8001, 1, true, Transport::tcp, nullptr, counters_, [this](std::uint16_t event) {
        missed_.push_back(event);
      }};
  std::shared_ptr<Kept> old_ = std::make_shared<Kept>();
  std::shared_ptr<Kept> fresh_ = std::make_shared<Kept>();
};

TEST_F(Field, a_change_while_a_subscriber_is_acknowledged_comes_once_and_after_the_initial_value) {
  subscribe(old_);
  notify("one");
  channel_.hold(targets({old_, fresh_}));
  const auto publisher = std::async(std::launch::async, [&] {
    for (const auto* value : {"two", "three", "four"})
      notify(value);
  });
  EXPECT_TRUE(waits(publisher)) << "nothing before the acknowledgement";
  channel_.send_initial(targets({fresh_}));
  EXPECT_TRUE(waits(publisher));
  channel_.release();
  publisher.wait();
  EXPECT_THAT(fresh_->values, ElementsAre("one", "two", "three", "four"));
  EXPECT_THAT(fresh_->sessions, ElementsAre(2, 3, 4, 5)) << "never backwards";
  EXPECT_THAT(old_->values, ElementsAre("one", "two", "three", "four"));
  EXPECT_THAT(old_->sessions, ElementsAre(1, 3, 4, 5)) << "2 was the initial value of the other";
}

TEST_F(Field, that_has_no_value_yet_is_missed_once_and_the_first_one_follows) {
  subscribe(fresh_);
  EXPECT_THAT(missed_, ElementsAre(0x8001));
  notify("one");
  subscribe(old_);
  EXPECT_THAT(missed_, ElementsAre(0x8001));
  EXPECT_THAT(fresh_->values, ElementsAre("one"));
  EXPECT_THAT(old_->values, ElementsAre("one"));
}

TEST_F(Field, each_publisher_sends_its_own_values_and_none_those_of_others) {
  subscribe(old_);
  std::promise<void> sends, go_on;
  old_->on_send = [&](const std::string& value) {
    if (value != "slow") return;
    sends.set_value();
    go_on.get_future().wait();
  };
  const auto first = std::async(std::launch::async, [&] { notify("slow"); });
  sends.get_future().wait();
  const auto second = std::async(std::launch::async, [&] { notify("quick"); });
  EXPECT_TRUE(waits(second)) << "or a fast publisher would fill the memory";
  go_on.set_value();
  first.wait();
  second.wait();
  EXPECT_THAT(old_->values, ElementsAre("slow", "quick"));
  EXPECT_NE(old_->threads[0], old_->threads[1]);
}

TEST_F(Field, a_send_that_throws_costs_its_own_value_only) {
  subscribe(old_);
  old_->on_send = [](const std::string& value) {
    if (value == "bad") throw std::runtime_error(value);
  };
  EXPECT_THROW(notify("bad"), std::runtime_error);
  notify("good");
  EXPECT_THAT(old_->values, ElementsAre("good"));
}

TEST_F(Field, discovery_is_not_kept_by_a_publisher_that_never_pauses) {
  // Each send lets the publisher come with the next value before it returns.
  struct Slow final : Stream {
    void send(const Header&, Bytes) override {
      const auto seen = published.load();
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(1);
      while (!stop && published == seen && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    }
    std::atomic<std::size_t> published{0};
    std::atomic<bool> stop{false};
  };
  const auto slow = std::make_shared<Slow>();
  auto targets = std::make_shared<Event_targets>();
  targets->streams = {slow};
  notify("first");
  std::thread publisher([&] {
    while (!slow->stop) {
      notify("next");
      ++slow->published;
    }
  });
  auto discovery = std::async(std::launch::async, [&] {
    for (int i = 0; i < 3; ++i) {
      channel_.hold(targets);
      channel_.send_initial(targets);
      channel_.release();
    }
  });
  EXPECT_EQ(discovery.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  slow->stop = true;
  publisher.join();
  discovery.get();
}

}  // namespace
}  // namespace someip
