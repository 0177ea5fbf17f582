#include "clients/GeneralClientImpl.h"

#include <gmock/gmock.h>

#include <future>
#include <string>
#include <thread>

#include "tests/support/capture.h"

namespace {

using ::testing::ElementsAre;

/// A proxy whose search results the test gives, and which tells of its life.
struct Proxy {
  struct Handle_type {
    std::uint16_t id;
    [[nodiscard]] ara::com::InstanceIdentifier GetInstanceId() const {
      return ara::com::InstanceIdentifier{id};
    }
  };
  using Handler = ara::com::FindServiceHandler<Handle_type>;

  static ara::com::FindServiceHandle StartFindService(Handler handler) {
    search = std::move(handler);
    return {tq::com::Find_token{7}};
  }
  /// As promised by the middleware: returns once the handler does not run any more.
  static void StopFindService(ara::com::FindServiceHandle handle) {
    EXPECT_EQ(handle.token, tq::com::Find_token{7});
    stop_requested.set_value();
    if (running_handler.joinable()) running_handler.join();
    search = nullptr;
  }
  static void result(std::vector<Handle_type> found) { search(std::move(found), {}); }

  explicit Proxy(const Handle_type& handle) : id{handle.id} {
    life.push_back("+" + std::to_string(id));
  }
  ~Proxy() { life.push_back("-" + std::to_string(id)); }

  std::uint16_t id;

  static inline Handler search;
  static inline std::vector<std::string> life;
  static inline std::promise<void> stop_requested;
  static inline std::thread running_handler;
};

class General_client : public ::testing::Test {
 protected:
  General_client() {
    Proxy::search = nullptr;
    Proxy::life.clear();
    Proxy::stop_requested = {};
  }
  void start() {
    client_.init([](Proxy& proxy) { Proxy::life.push_back("set up " + std::to_string(proxy.id)); });
  }

  ara::log::Logger& logger_ = ara::log::CreateLogger("TGCL", "the owner's context");
  test::Capture capture_;
  GeneralClientImpl<Proxy> client_{logger_};
};

TEST_F(General_client, connects_to_the_first_instance_of_each_result_that_has_one) {
  std::vector<bool> told;
  client_.set_availability_callback([&](bool available) { told.push_back(available); });
  start();
  EXPECT_FALSE(client_.is_available());
  Proxy::result({});
  Proxy::result({{5}, {2}});
  EXPECT_TRUE(client_.is_available());
  EXPECT_EQ(capture_.texts("TGCL").size(), 3U) << "both are available, one is connected to";
  Proxy::result({});
  Proxy::result({});
  EXPECT_FALSE(client_.is_available());
  EXPECT_THAT(Proxy::life, ElementsAre("+5", "set up 5")) << "keeps its proxy";
  Proxy::result({{5}});
  Proxy::result({{6}, {5}});
  EXPECT_THAT(Proxy::life,
              ElementsAre("+5", "set up 5", "+5", "-5", "set up 5", "+6", "-5", "set up 6"))
      << "the old proxy ends before the new one is set up";
  client_.stop();
  EXPECT_THAT(told, ElementsAre(true, false, true)) << "not that it was stopped";
}

TEST_F(General_client, passes_a_failure_of_the_set_up_on_and_connects_again_later) {
  bool fails = true;
  client_.init([&](Proxy&) {
    if (fails) throw std::runtime_error{"no subscription"};
  });
  EXPECT_THROW(Proxy::result({{5}}), std::runtime_error);
  fails = false;
  EXPECT_NO_THROW(Proxy::result({{5}}));
}

TEST_F(General_client, stop_ends_search_and_proxy_once_and_init_starts_over) {
  start();
  Proxy::result({{5}});
  client_.stop();
  EXPECT_EQ(Proxy::search, nullptr);
  EXPECT_FALSE(client_.is_available());
  EXPECT_THAT(Proxy::life, ElementsAre("+5", "set up 5", "-5"));
  client_.stop();
  start();
  Proxy::result({{5}});
  EXPECT_TRUE(client_.is_available());
  Proxy::stop_requested = {};
}

TEST_F(General_client, a_result_that_comes_in_during_stop_leaves_no_proxy_behind) {
  std::promise<void> in_set_up;
  client_.init([&](Proxy&) {
    in_set_up.set_value();
    Proxy::stop_requested.get_future().wait();
  });
  Proxy::running_handler = std::thread{[] { Proxy::result({{5}}); }};
  in_set_up.get_future().wait();
  client_.stop();
  EXPECT_FALSE(client_.is_available());
  EXPECT_THAT(Proxy::life, ElementsAre("+5", "-5"));
}

}  // namespace
