#include "platform/someip/net/udp_receiver.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/network.h"
#include "tests/support/seen.h"

namespace someip {
namespace {

const Address loopback = boost::asio::ip::make_address(test::address(1));

/// A thread for each piece of work; descriptors are not watched.
class Thread_workers final : public Workers {
 public:
  ~Thread_workers() override {
    // A thread that ends may start another one.
    for (std::vector<std::jthread> ending = take(); !ending.empty(); ending = take()) {
      for (std::jthread& thread : ending)
        thread.join();
    }
  }
  boost::asio::io_context& control() override { throw std::logic_error("no control thread"); }
  void post(std::function<void()> work) override { static_cast<void>(start_thread(work)); }
  Watch watch(int, std::shared_ptr<Readable>) override { return Watch{}; }
  void unwatch(Watch, int) override {}
  bool start_thread(std::function<void()> work) override {
    const std::lock_guard lock(mutex_);
    threads_.emplace_back(std::move(work));
    return true;
  }

 private:
  std::vector<std::jthread> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(threads_, {});
  }

  std::mutex mutex_;  ///< guards threads_
  std::vector<std::jthread> threads_;
};

constexpr std::uint16_t stuck = 1;

/// A receiver whose handler of the method `stuck` waits until release().
class Udp_receiving : public testing::Test, public Message_receiver {
 public:
  ~Udp_receiving() override {
    release();
    receiver_->close();
  }

 protected:
  void release() {
    released_ = true;
    released_.notify_all();
  }
  void received(Received message, const Endpoint&, Tasks& tasks) override {
    EXPECT_GT(message.header.session, last_session_) << "in the order of the socket";
    last_session_ = message.header.session;
    tasks.push_back(std::make_shared<Call>(*this, message.header.method));
  }
  void send(std::uint16_t method) {
    Header header;
    header.method = method;
    header.session = ++sent_;
    const auto bytes = header_bytes(header, 0);
    ASSERT_FALSE(sender_->send(bytes, Socket_address(socket_->local())));
  }
  static std::shared_ptr<Udp_socket> bound() {
    auto socket = std::make_shared<Udp_socket>(loopback);
    EXPECT_FALSE(socket->bind({loopback, 0}));
    return socket;
  }
  [[nodiscard]] bool sticks_again() {
    send(stuck);
    return seen_.wait(
        [n = ++stuck_](const auto& all) { return std::ranges::count(all, stuck) == n; });
  }
  [[nodiscard]] bool passes(std::uint16_t method) {
    send(method);
    return seen_.wait_for(method);
  }

  struct Call final : Task {
    Call(Udp_receiving& test, std::uint16_t method) : test_(test), method_(method) {}
    void run() override {
      test_.seen_.add(method_);
      if (method_ == stuck) test_.released_.wait(false);
    }
    Udp_receiving& test_;
    const std::uint16_t method_;
  };

  std::atomic<bool> released_{false};
  test::Seen<std::uint16_t> seen_;
  std::uint16_t sent_ = 0, last_session_ = 0;
  std::ptrdiff_t stuck_ = 0;
  Deployment deployment_;
  Shared_reassembler reassembler_{deployment_};
  Counters counters_;
  Log log_{nullptr};
  Thread_workers workers_;
  const std::shared_ptr<Udp_socket> sender_ = bound(), socket_ = bound();
  const std::shared_ptr<Udp_receiver> receiver_ =
      std::make_shared<Udp_receiver>(socket_, *this, workers_, reassembler_, counters_, log_);
};

TEST_F(Udp_receiving, stuck_handlers_hold_up_no_other_message) {
  receiver_->open_with_threads();
  for (std::uint16_t method = 2; method < 6; ++method) {
    ASSERT_TRUE(sticks_again());
    ASSERT_TRUE(passes(method)) << "beside " << stuck_ << " stuck handlers";
  }
  release();
  for (std::uint16_t method = 100; method < 1100; ++method)
    ASSERT_TRUE(passes(method));
  released_ = false;
  ASSERT_TRUE(sticks_again());
  ASSERT_TRUE(sticks_again());
  EXPECT_TRUE(passes(6)) << "as before, after a thousand datagrams";
}

TEST_F(Udp_receiving, a_worker_that_looks_late_changes_nothing) {
  send(2);
  send(stuck);
  receiver_->open_with_threads();
  ASSERT_TRUE(seen_.wait_for(stuck));
  ASSERT_TRUE(seen_.wait_for(2));
  receiver_->on_readable();
  EXPECT_TRUE(passes(3));
}

TEST_F(Udp_receiving, refused_sends_do_not_end_receiving) {
  socket_->keep_errors();
  receiver_->open_with_threads();
  Endpoint nobody;
  {
    const auto closed = bound();
    nobody = closed->local();
  }
  for (int i = 0; i < 200; ++i)
    static_cast<void>(socket_->send(header_bytes({}, 0), Socket_address(nobody)));
  EXPECT_TRUE(passes(2));
  ASSERT_TRUE(sticks_again());
  EXPECT_TRUE(passes(3));
}

}  // namespace
}  // namespace someip
