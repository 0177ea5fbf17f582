#include "platform/someip/event_channel.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "platform/someip/counters.h"

namespace someip {
namespace {

using testing::ElementsAre;

/// A subscriber that keeps what it gets.
struct Kept final : Stream {
  void send(const Header& header, Bytes payload) override {
    sessions.push_back(header.session);
    values.emplace_back(reinterpret_cast<const char*>(payload.data()), payload.size());
  }
  std::vector<std::uint16_t> sessions;
  std::vector<std::string> values;
};

class Field : public testing::Test {
 protected:
  void notify(std::string_view value) { channel_.notify(std::as_bytes(std::span{value})); }
  static Event_channel::Targets targets(const std::vector<std::shared_ptr<Kept>>& subscribers) {
    auto made = std::make_shared<Event_targets>();
    made->streams.assign(subscribers.begin(), subscribers.end());
    return made;
  }

  Counters counters_;
  Event_channel channel_{1, 0x8001, 1, true, Transport::tcp, nullptr, counters_};
  std::shared_ptr<Kept> old_ = std::make_shared<Kept>();
  std::shared_ptr<Kept> fresh_ = std::make_shared<Kept>();
};

TEST_F(Field, a_change_while_a_subscriber_is_acknowledged_comes_once_and_after_the_initial_value) {
  channel_.hold(targets({old_}));
  channel_.send_initial(targets({old_}));
  channel_.release();
  notify("one");

  channel_.hold(targets({old_, fresh_}));
  notify("two");
  EXPECT_THAT(fresh_->values, ElementsAre()) << "nothing before the acknowledgement";
  channel_.send_initial(targets({fresh_}));
  notify("three");
  channel_.release();
  notify("four");
  EXPECT_THAT(fresh_->values, ElementsAre("one", "two", "three", "four"));
  EXPECT_THAT(old_->values, ElementsAre("one", "two", "three", "four"));
  EXPECT_THAT(old_->sessions, ElementsAre(1, 2, 4, 5)) << "3 was the initial value of the other";
}

TEST_F(Field, that_has_no_value_yet_is_missed_once_and_the_first_one_follows) {
  std::vector<std::uint16_t> missed;
  channel_.on_value_missing([&](std::uint16_t event) { missed.push_back(event); });
  channel_.hold(targets({fresh_}));
  channel_.send_initial(targets({fresh_}));
  EXPECT_THAT(missed, ElementsAre(0x8001));
  notify("one");
  channel_.release();
  EXPECT_THAT(fresh_->values, ElementsAre("one"));
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
