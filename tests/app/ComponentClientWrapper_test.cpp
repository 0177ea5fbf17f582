#include "app/ComponentClientWrapper.h"

#include <gmock/gmock.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "tests/support/capture.h"
#include "tests/support/no_threads.h"
#include "tests/support/own_process.h"
#include "tests/support/seen.h"
#include "tests/support/store.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using Confirmation = std::tuple<std::uint32_t, std::string, std::uint32_t>;

/// The far side: what was registered and what was confirmed.
struct State_management {
  test::Seen<Confirmation> confirmations;
  std::string instance;
  ara::stm::StateChangeHandler handler;
  std::thread early;  // a request made before the client is returned
  bool request_early = false;
  std::atomic<bool> connected{false};
};
State_management* management = nullptr;

class Client : public ara::stm::ComponentClient {
 public:
  Client() { management->connected = true; }
  ~Client() override { management->connected = false; }
  void confirm(std::uint32_t sequence_number,
               const std::string& newState,
               std::uint32_t result) override {
    management->confirmations.add({sequence_number, newState, result});
  }
};

}  // namespace

std::unique_ptr<ara::stm::ComponentClient> ara::stm::createComponentClient(
    const core::InstanceSpecifier& instance, StateChangeHandler handler) {
  management->instance = instance.ToString();
  management->handler = std::move(handler);
  if (management->request_early) {
    management->early = std::thread([] { management->handler("kOn", 1); });
  }
  return std::make_unique<Client>();
}

namespace {

class Component_client_wrapper : public testing::Test {
 public:
  Component_client_wrapper() { management = &management_; }

 protected:
  void request(const std::string& state, std::uint32_t seqNum) {
    management_.handler(state, seqNum);
  }
  void save() { static_cast<void>(persistency_.controlledSaveBinaryData({1}, "b")); }
  /// All confirmations, once there are `count`.
  std::vector<Confirmation> confirmed(std::size_t count) {
    EXPECT_TRUE(management_.confirmations.wait_count(count));
    return management_.confirmations.all();
  }

  State_management management_;
  Store store_;
  test::Capture log_;
  Persistency persistency_ = store_.open();
};

TEST_F(Component_client_wrapper, an_owner_that_is_ready_is_prepared_within_the_request) {
  const ComponentClientWrapper wrapper(&persistency_, [] { return true; });
  EXPECT_EQ(management_.instance, "POS__ORVEL1_Sys_Adaptive_01_instance1");

  request("kOn", 1);  // is on already: the persistency hears nothing
  EXPECT_THAT(log_.texts("DBAC"), IsEmpty());
  request("kPrepSD", 2);
  EXPECT_FALSE(persistency_.isStoringAllowed());
  request("kPrepSD", 3);
  request("kOn", 4);
  EXPECT_TRUE(persistency_.isStoringAllowed());
  request("kPrepSD", 5);
  request("kUnknown", 6);
  request("", 7);  // unlike "kOn", an unknown name sets the switch again

  EXPECT_THAT(confirmed(7), ElementsAre(Confirmation{1, "kOn", 0}, Confirmation{2, "kPrepSD", 0},
                                        Confirmation{3, "kPrepSD", 0}, Confirmation{4, "kOn", 0},
                                        Confirmation{5, "kPrepSD", 0},
                                        Confirmation{6, "kUnknown", 0}, Confirmation{7, "", 0}));
  EXPECT_THAT(log_.texts("DBAC"),
              ElementsAre("Database: storing forbidden", "Database: storing allowed",
                          "Database: storing forbidden", "Database: storing allowed",
                          "Database: storing allowed"));
}

TEST_F(Component_client_wrapper, a_request_before_the_client_is_returned_is_confirmed) {
  management_.request_early = true;
  const ComponentClientWrapper wrapper(&persistency_, [] { return true; });
  management_.early.join();
  EXPECT_THAT(confirmed(1), ElementsAre(Confirmation{1, "kOn", 0}));
}

TEST_F(Component_client_wrapper, a_preparation_ends_when_the_owner_has_stored_everything) {
  // Each answer stores one of eight blobs, more than there are seconds: the
  // next question must follow the save.
  std::atomic<bool> busy{true};
  int unsaved = 8;
  const ComponentClientWrapper wrapper(&persistency_, [&] {
    if (busy) return false;
    save();
    return --unsaved == 0;
  });
  request("kPrepSD", 1);
  EXPECT_TRUE(persistency_.isStoringAllowed());
  request("kPrepSD", 2);
  EXPECT_THAT(confirmed(1), ElementsAre(Confirmation{2, "kPrepSD", 1}));
  busy = false;
  EXPECT_THAT(confirmed(2),
              ElementsAre(Confirmation{2, "kPrepSD", 1}, Confirmation{1, "kPrepSD", 0}));
  EXPECT_EQ(unsaved, 0);
  EXPECT_FALSE(persistency_.isStoringAllowed());
}

TEST_F(Component_client_wrapper, an_owner_that_throws_is_not_ready_and_stops_nothing) {
  std::atomic<int> asked = 0;
  const ComponentClientWrapper wrapper(&persistency_, [&] {
    if (++asked == 1) throw std::runtime_error("disk on fire");
    if (asked == 2) throw 2;
    return true;
  });
  request("kPrepSD", 1);
  save();  // asks once more, in the preparation's thread
  EXPECT_THAT(confirmed(1), ElementsAre(Confirmation{1, "kPrepSD", 0}));
  EXPECT_THAT(log_.texts("CCSW"),
              ElementsAre("componentStateChangeRequest newState =  kPrepSD  seqNum =  1",
                          "Error in the preparation for shutdown: disk on fire",
                          "Error in the preparation for shutdown: unknown exception"));
}

TEST_F(Component_client_wrapper, a_preparation_without_a_thread_leaves_the_application_on) {
  const ComponentClientWrapper wrapper(&persistency_, {});
  {
    const test::No_threads none;
    request("kPrepSD", 1);
  }
  EXPECT_TRUE(log_.has("Error in the preparation for shutdown: Resource temporarily unavailable"));

  request("kPrepSD", 2);  // tries again
  save();
  EXPECT_THAT(confirmed(2),
              ElementsAre(Confirmation{1, "kPrepSD", 1}, Confirmation{2, "kPrepSD", 0}));
}

TEST_F(Component_client_wrapper, a_save_wakes_the_newest_preparation_at_once) {
  const ComponentClientWrapper wrapper(&persistency_, {});
  for (std::uint32_t round = 0; round < 6; ++round) {
    request("kPrepSD", 10);
    ASSERT_TRUE(test::eventually(test::other_thread_waits));
    request("kOn", 11);  // its wake and that of the save reach the same wait
    request("kPrepSD", 100 + round);
    const auto saved = std::chrono::steady_clock::now();
    save();
    ASSERT_TRUE(management_.confirmations.wait_for({100 + round, "kPrepSD", 0}));
    ASSERT_LT(std::chrono::steady_clock::now() - saved, 2s) << "without the wake it takes 5 s";
    request("kOn", 12);
  }
  request("kPrepSD", 13);
  EXPECT_TRUE(test::eventually(test::other_thread_waits)) << "whatever woke earlier ones";
  save();
}

TEST_F(Component_client_wrapper, switching_on_during_a_preparation_wins) {
  const ComponentClientWrapper wrapper(&persistency_, {});
  request("kPrepSD", 1);
  request("kOn", 2);
  save();  // too late to end anything
  EXPECT_THAT(confirmed(1), ElementsAre(Confirmation{2, "kOn", 0}));
  EXPECT_TRUE(persistency_.isStoringAllowed());

  // Over and over, whether or not the earlier preparation has noticed its end, from two threads.
  const auto toggle = [&] {
    for (int round = 0; round < 100; ++round) {
      request("kPrepSD", 10);
      request("kOn", 11);
    }
  };
  std::thread other(toggle);
  toggle();
  other.join();
  request("kPrepSD", 1000);
  save();
  EXPECT_TRUE(management_.confirmations.wait_for({1000, "kPrepSD", 0}));
  const auto all = management_.confirmations.all();
  EXPECT_EQ(all.back(), Confirmation(1000, "kPrepSD", 0));
  EXPECT_FALSE(persistency_.isStoringAllowed());
}

TEST_F(Component_client_wrapper, destruction_waits_for_a_preparation_at_most_five_seconds) {
  std::optional<ComponentClientWrapper> wrapper(std::in_place, &persistency_, [] { return false; });
  const auto start = std::chrono::steady_clock::now();
  request("kPrepSD", 1);
  wrapper.reset();
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, 5s);
  EXPECT_LT(waited, 10s);
  EXPECT_THAT(confirmed(1), ElementsAre(Confirmation{1, "kPrepSD", 0}));
  EXPECT_FALSE(management_.connected);
  save();  // nobody is called any more
}

}  // namespace
