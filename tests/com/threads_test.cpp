#include <gmock/gmock.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <future>
#include <thread>

#include "mw/com/cpp_binding/log.h"
#include "mw/com/cpp_binding/proxy.h"
#include "mw/com/static_thread_pool.h"
#include "mw/com/strand.h"
#include "platform/linux/com/loop.h"
#include "platform/linux/com/notification_queue.h"
#include "tests/com/test_network.h"
#include "tests/support/capture.h"
#include "tests/support/no_threads.h"

namespace {

using namespace std::chrono_literals;
using mw::com::static_thread_pool;
using mw::com::Strand;
using test::Seen;
using testing::ElementsAre;

/// Waits in a handler until the test lets it go on.
class Barrier {
 public:
  void wait() {
    entered_.set_value();
    released_.get_future().wait();
  }
  [[nodiscard]] bool entered() {
    return entered_.get_future().wait_for(30s) == std::future_status::ready;
  }
  void release() { released_.set_value(); }

 private:
  std::promise<void> entered_, released_;
};

/// On this thread, when the strand is free.
void run_on(Strand& strand, std::function<void()> work) {
  if (strand.enqueue(std::move(work))) strand.run();
}

TEST(Strand, runs_inline_when_it_is_free_and_queues_when_it_is_not) {
  Strand strand;
  std::vector<std::string> order;
  run_on(strand, [&] {
    order.emplace_back("outer begins");
    EXPECT_TRUE(strand.running_in_this_thread());
    run_on(strand, [&] { order.emplace_back("inner"); });
    order.emplace_back("outer ends");
  });
  EXPECT_FALSE(strand.running_in_this_thread());
  EXPECT_THAT(order, ElementsAre("outer begins", "outer ends", "inner"));
}

TEST(Strand, close_waits_for_the_running_piece_and_drops_the_rest) {
  Strand strand;
  Barrier barrier;
  std::atomic<bool> ended{false}, dropped_ran{false};
  std::thread runner([&] {
    run_on(strand, [&] {
      barrier.wait();
      ended = true;
    });
  });
  ASSERT_TRUE(barrier.entered());
  EXPECT_FALSE(strand.enqueue([&] { dropped_ran = true; }));
  auto closed = std::async(std::launch::async, [&] { strand.close(); });
  EXPECT_EQ(closed.wait_for(20ms), std::future_status::timeout);
  barrier.release();
  closed.get();
  EXPECT_TRUE(ended);
  EXPECT_FALSE(dropped_ran);
  EXPECT_FALSE(strand.enqueue([&] { dropped_ran = true; })) << "closed";
  runner.join();
  EXPECT_FALSE(dropped_ran);
}

TEST(Strand, closed_from_within_or_between_enqueue_and_run_leaves_the_rest_out) {
  int ran = 0;
  Strand from_within;
  run_on(from_within, [&] {
    ++ran;
    static_cast<void>(from_within.enqueue([&] { ++ran; }));
    from_within.close();
  });
  Strand between;
  ASSERT_TRUE(between.enqueue([&] { ++ran; }));
  between.close();
  between.run();
  EXPECT_EQ(ran, 1);
}

TEST(Strand, claimed_and_queued_pieces_never_overlap_and_none_runs_after_close) {
  for (int round = 0; round < 50; ++round) {
    Strand strand;
    int pieces = 0;  // unguarded: the strand guards it
    std::atomic<int> begun{0};
    std::atomic<bool> closed{false}, late{false};
    const auto piece = [&] {
      if (closed) late = true;
      ++pieces;
      ++begun;
    };
    std::vector<std::jthread> threads;
    threads.reserve(3);
    for (int i = 0; i < 3; ++i) {
      threads.emplace_back([&] {
        for (int n = 0; n < 3000; ++n) {
          if (strand.claim()) {
            strand.run_claimed(piece);
          } else if (strand.enqueue(piece)) {
            strand.run();
          }
        }
      });
    }
    EXPECT_TRUE(test::eventually([&] { return begun > 100 * round; }));
    strand.close();
    closed = true;
    const int at_close = pieces;
    threads.clear();
    EXPECT_FALSE(late);
    EXPECT_EQ(pieces, at_close);
  }
}

using Samples = mw::com::cpp_binding::proxy::Sample_cache<std::array<int, 8>>;

bool receive(Samples& samples, int value) {
  auto& slot = samples.acquire();
  slot.value.fill(value);
  return samples.push(slot);
}

TEST(Samples, displace_the_oldest_that_waits_but_none_that_is_held) {
  auto samples = std::make_shared<Samples>(2);
  for (const int value : {1, 2, 3})
    EXPECT_TRUE(receive(*samples, value));
  auto second = samples->pop();
  const auto third = samples->pop();
  EXPECT_EQ(second->front(), 2);
  EXPECT_EQ(third->front(), 3);
  EXPECT_EQ(samples->pop(), nullptr);
  EXPECT_FALSE(receive(*samples, 4)) << "both are held";
  second.reset();
  EXPECT_TRUE(receive(*samples, 5));
  EXPECT_EQ(samples->pop()->front(), 5);
  samples.reset();
  EXPECT_EQ(third->front(), 3) << "outlives its event";
}

TEST(Samples, keep_the_room_of_a_usual_list_but_not_that_of_a_huge_one) {
  using List = std::vector<std::uint64_t>;
  const auto lists = std::make_shared<mw::com::cpp_binding::proxy::Sample_cache<List>>(1);
  const auto room = [&] { return lists->acquire().value.capacity(); };
  const auto receive = [&](std::size_t size) {
    auto& slot = lists->acquire();
    slot.value.resize(size);
    return lists->push(slot);
  };
  EXPECT_TRUE(receive(1000));
  lists->pop().reset();
  EXPECT_GE(room(), 1000U);
  EXPECT_TRUE(receive(100'000));
  lists->pop().reset();
  EXPECT_EQ(room(), 0U) << "fetched";
  EXPECT_TRUE(receive(100'000));
  EXPECT_TRUE(receive(1)) << "in the second slot";
  EXPECT_EQ(room(), 0U) << "displaced";
  const auto held = lists->pop();
  EXPECT_FALSE(receive(100'000));
  EXPECT_EQ(room(), 0U) << "refused";
}

TEST(Samples, are_whole_and_in_order_when_another_thread_fetches) {
  constexpr int last = 20'000;
  const auto samples = std::make_shared<Samples>(4);
  std::jthread receiver([&] {
    for (int value = 1; value <= last; ++value)
      EXPECT_TRUE(receive(*samples, value));
  });
  int before = 0;
  const auto end = std::chrono::steady_clock::now() + 10s;
  while (before != last && std::chrono::steady_clock::now() < end) {
    const auto sample = samples->pop();
    if (sample == nullptr) continue;
    EXPECT_GT(sample->front(), before);
    EXPECT_EQ(sample->front(), sample->back());
    before = sample->front();
  }
  EXPECT_EQ(before, last);
}

TEST(Pool, that_cannot_have_another_thread_says_so) {
  Barrier barrier;
  static_thread_pool pool(1);
  {
    const test::No_threads none;
    EXPECT_FALSE(pool.loop().start_thread([] {}));
  }
  EXPECT_TRUE(pool.loop().start_thread([&] { barrier.wait(); }));
  EXPECT_TRUE(barrier.entered());
  barrier.release();
}

TEST(Pool, runs_posted_work_beside_a_long_piece) {
  struct Busy final : someip::Readable {
    void on_readable() override { barrier.wait(); }
    const int descriptor = ::eventfd(1, EFD_NONBLOCK);
    Barrier barrier;
  };
  const std::array busy{std::make_shared<Busy>(), std::make_shared<Busy>()};
  Barrier long_piece;
  Seen<bool> ran;
  static_thread_pool pool(2);
  for (const auto& one : busy) {
    static_cast<void>(pool.loop().watch(one->descriptor, one));
    ASSERT_TRUE(one->barrier.entered());
  }
  pool.loop().post([&] { long_piece.wait(); });
  pool.loop().post([&] { ran.add(true); });
  busy[0]->barrier.release();
  EXPECT_TRUE(long_piece.entered());
  busy[1]->barrier.release();
  EXPECT_TRUE(ran.wait_count(1));
  long_piece.release();
  pool.stop();
  for (const auto& one : busy)
    ::close(one->descriptor);
}

TEST(Log, of_what_peers_can_cause_is_limited_in_its_rate) {
  const test::Capture capture;
  for (int i = 0; i < 100; ++i) {
    mw::com::cpp_binding::log_get_without_value(3);
    mw::com::cpp_binding::log_notify_without_value(0x8001);
  }
  // Ten a second of each; the hundred may take a little longer than one.
  EXPECT_LE(capture.records().size(), 60U);
  EXPECT_TRUE(test::eventually([&] {
    mw::com::cpp_binding::log_get_without_value(3);
    return capture.records().back().text().find("; suppressed before: ") != std::string::npos;
  })) << "a second later";
}

TEST(Pool, stop_drops_what_has_not_begun_and_leaves_no_queue_waiting_for_it) {
  std::atomic<bool> ran{false};
  static_thread_pool pool(1);
  someip::Counters counters;
  auto queue = std::make_shared<tq::com::Notification_queue>(
      std::uint8_t{1}, someip::Limits{}, [](tq::com::Payload) {}, [](bool) {}, pool.loop(),
      counters);
  Barrier barrier;
  pool.loop().post([&] { barrier.wait(); });
  ASSERT_TRUE(barrier.entered());
  pool.loop().post([&] { ran = true; });
  queue->subscription_changed(true);
  queue->close();
  queue.reset();
  auto stopped = std::async(std::launch::async, [&] { pool.stop(); });
  // The piece in work ends first; only then can the worker see that it has to stop.
  EXPECT_EQ(stopped.wait_for(20ms), std::future_status::timeout);
  barrier.release();
  stopped.get();
  pool.stop();
  EXPECT_FALSE(ran);
}

TEST(Notifications, that_wait_are_the_newest_within_the_bounds_on_their_number_and_bytes) {
  static_thread_pool pool(1);
  someip::Counters counters;
  someip::Limits limits;
  limits.queued_notifications = 4;
  limits.queued_notification_bytes = 10'000;
  std::vector<std::size_t> sizes;
  std::vector<bool> states;
  const auto queue = std::make_shared<tq::com::Notification_queue>(
      std::uint8_t{1}, limits, [&](tq::com::Payload payload) { sizes.push_back(payload.size()); },
      [&](bool active) { states.push_back(active); }, pool.loop(), counters);
  const auto arrives = [&](std::size_t size) {
    someip::Received one;
    one.buffer = someip::Buffer(size);
    one.payload = {one.buffer.data(), size};
    return queue->enqueue(std::move(one));
  };
  EXPECT_TRUE(arrives(1)) << "this thread is to run it";
  for (int round = 0; round < 100; ++round) {
    for (const auto size : {10'000U, 20'000U, 2100U, 2200U, 2300U, 2400U, 5000U})
      EXPECT_FALSE(arrives(size));
  }
  for (const bool active : {true, false})
    queue->subscription_changed(active);
  queue->run();
  EXPECT_THAT(sizes, testing::ElementsAre(1, 2300, 2400, 5000));
  EXPECT_TRUE(states.empty()) << "back in the state that is known";
  EXPECT_TRUE(arrives(2));
  EXPECT_FALSE(arrives(3));
  queue->run();
  EXPECT_THAT(sizes, testing::ElementsAre(1, 2300, 2400, 5000, 2, 3)) << "as the first time";
}

struct Reader final : someip::Readable {
  void on_readable() override {
    std::uint64_t value = 0;
    if (::read(descriptor, &value, sizeof value) == sizeof value) seen.add(value);
  }
  const int descriptor = ::eventfd(0, EFD_NONBLOCK);
  Seen<std::uint64_t> seen;
};

TEST(Pool, calls_readers_for_arrivals_until_they_are_unwatched) {
  static_thread_pool pool(2);
  const auto reader = std::make_shared<Reader>();
  const auto arrive = [&](std::uint64_t value) {
    EXPECT_EQ(::write(reader->descriptor, &value, sizeof value), ssize_t{sizeof value});
  };
  EXPECT_THROW(static_cast<void>(pool.loop().watch(-1, reader)), std::system_error);
  EXPECT_EQ(reader.use_count(), 1) << "not kept when it is not watched";
  const auto watch = pool.loop().watch(reader->descriptor, reader);
  arrive(1);
  ASSERT_TRUE(reader->seen.wait_for(1));
  arrive(2);
  ASSERT_TRUE(reader->seen.wait_for(2));
  pool.loop().unwatch(watch, reader->descriptor);
  arrive(3);
  EXPECT_TRUE(test::eventually([&] { return reader.use_count() == 1; })) << "a call may still run";
  EXPECT_THAT(reader->seen.all(), ElementsAre(1, 2));
  ::close(reader->descriptor);
}

}  // namespace
