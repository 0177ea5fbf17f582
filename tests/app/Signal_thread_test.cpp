#include "app/Signal_thread.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <vector>

namespace {

/// What the handler, a plain function, has been called with.
struct Calls {
  std::mutex mutex;  // guards counts and threads
  std::condition_variable changed;
  std::array<int, 32> counts{};
  std::vector<std::thread::id> threads;

  bool await(int signal, int count) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(10),
                            [&] { return counts.at(static_cast<std::size_t>(signal)) >= count; });
  }
};
Calls* calls = nullptr;

void handler(int signal) {
  const std::lock_guard lock(calls->mutex);
  ++calls->counts.at(static_cast<std::size_t>(signal));
  calls->threads.push_back(std::this_thread::get_id());
  calls->changed.notify_all();
}

constexpr std::array kSignals{SIGINT, SIGTERM, SIGUSR1, SIGUSR2};

class SignalThreadTest : public testing::Test {
 protected:
  SignalThreadTest() {
    calls = &calls_;
    Signal_thread::blockSignals();
  }
  Calls calls_;
};

TEST_F(SignalThreadTest, signals_from_before_the_thread_and_after_it_end_nothing) {
  kill(getpid(), SIGTERM);
  {
    const Signal_thread thread(handler);
    EXPECT_TRUE(calls_.await(SIGTERM, 1));
  }
  for (const int signal : kSignals)
    kill(getpid(), signal);
  EXPECT_EQ(calls_.threads.size(), 1u);
  const Signal_thread next(handler);
  for (const int signal : kSignals)
    EXPECT_TRUE(calls_.await(signal, 1));
}

TEST_F(SignalThreadTest, a_storm_from_many_threads_is_handled_on_one_thread_and_loses_no_kind) {
  constexpr int kRounds = 2000;
  const Signal_thread thread(handler);
  std::vector<std::thread> senders;
  senders.reserve(kSignals.size());
  for (const int signal : kSignals) {
    senders.emplace_back([signal] {
      for (int round = 0; round < kRounds; ++round) {
        kill(getpid(), signal);
        const std::lock_guard lock(calls->mutex);  // the handler may lock what others hold
      }
    });
  }
  for (auto& sender : senders)
    sender.join();
  for (const int signal : kSignals) {
    int before = 0;
    {
      const std::lock_guard lock(calls_.mutex);
      before = calls_.counts.at(static_cast<std::size_t>(signal));
    }
    kill(getpid(), signal);
    EXPECT_TRUE(calls_.await(signal, before + 1));
  }
  const std::lock_guard lock(calls_.mutex);
  for (const auto id : calls_.threads) {
    ASSERT_EQ(id, calls_.threads.front());
    ASSERT_NE(id, std::this_thread::get_id());
  }
}

}  // namespace
