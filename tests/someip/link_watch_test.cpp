#include "platform/someip/net/link_watch.h"

#include <gmock/gmock.h>
#include <sched.h>

#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace someip {
namespace {

using testing::ElementsAre;

/// A network of the test's own: an interface with the node's address, plugged into another one.
class Watched_link : public testing::Test {
 protected:
  void SetUp() override {
    if (::unshare(CLONE_NEWNET) != 0 && ::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
      GTEST_SKIP() << "needs the right to make a network namespace";
    }
    if (!ip("link add bridge type bridge") || !ip("link add node type veth peer name plug")) {
      GTEST_SKIP() << "this kernel has neither bridges nor pairs of interfaces";
    }
    ASSERT_TRUE(ip("link set node master bridge") && ip("address add 10.0.0.1/24 dev node") &&
                ip("link set node up") && ip("link set plug up"));
  }

  static bool ip(const std::string& arguments) {
    return std::system(("ip " + arguments).c_str()) == 0;
  }

  /// The changes since the last call, once there are `count`.
  std::vector<bool> changes(std::size_t count) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    control_.restart();
    control_.poll();
    while (changes_.size() < count && std::chrono::steady_clock::now() < end) {
      control_.restart();
      control_.run_one_until(end);
    }
    return std::exchange(changes_, {});
  }

  boost::asio::io_context control_;
  Log log_{nullptr};
  std::vector<bool> changes_;
};

TEST_F(Watched_link, reports_each_loss_of_the_own_link_and_no_other_event) {
  Link_watch watch(control_, boost::asio::ip::make_address("10.0.0.1"), log_,
                   [this](bool up) { changes_.push_back(up); });
  ASSERT_TRUE(watch.watching() && watch.up());
  watch.start();

  ASSERT_TRUE(ip("link set node nomaster") && ip("address add 10.0.0.2/24 dev node") &&
              ip("address del 10.0.0.2/24 dev node") && ip("link set bridge up") &&
              ip("link del bridge"));
  EXPECT_THAT(changes(0), ElementsAre()) << "the link itself stayed";

  ASSERT_TRUE(ip("link set node down") && ip("link set node up"));
  EXPECT_THAT(changes(2), ElementsAre(false, true)) << "over before the events were read";
  ASSERT_TRUE(ip("address del 10.0.0.1/24 dev node") && ip("address add 10.0.0.1/24 dev node"));
  EXPECT_THAT(changes(2), ElementsAre(false, true)) << "the address went and came";

  ASSERT_TRUE(ip("link set plug down"));
  EXPECT_THAT(changes(1), ElementsAre(false)) << "no carrier";
  EXPECT_FALSE(watch.up());
  ASSERT_TRUE(ip("link del node"));
  EXPECT_THAT(changes(0), ElementsAre()) << "down already";
  watch.stop();
}

}  // namespace
}  // namespace someip
