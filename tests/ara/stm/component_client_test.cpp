// The component on a bus of its own, called by busctl as state management would.
#include "ara/stm/component_client.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/capture.h"
#include "tests/support/no_threads.h"
#include "tests/support/seen.h"

namespace ara::stm {
namespace {

using ::testing::HasSubstr;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;
using namespace std::chrono_literals;

const core::InstanceSpecifier instance("POS__ORVEL1_Sys_Adaptive_01_instance1");
constexpr auto deadline = 10s;

/// A program whose output is read line by line; it ends with this object.
class Program {
 public:
  explicit Program(const std::string& command)
      : output_(::popen(("echo $$; exec " + command).c_str(), "re")), pid_(std::stoi(line())) {}
  ~Program() { stop(); }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  void stop() {
    if (output_ == nullptr) return;
    signal(SIGTERM);
    signal(SIGCONT);
    ::pclose(std::exchange(output_, nullptr));
  }
  void signal(int number) const { ::kill(pid_, number); }

  std::string line() {
    std::string line;
    for (int c = std::fgetc(output_); c != EOF && c != '\n'; c = std::fgetc(output_))
      line += static_cast<char>(c);
    return line;
  }

 private:
  FILE* output_;
  pid_t pid_;
};

/// A handler that confirms at once.
void confirm(ComponentClient& client, const std::string& state, std::uint32_t number) {
  client.confirm(number, state, 0);
}
/// One that leaves requests waiting.
void ignore(ComponentClient&, const std::string&, std::uint32_t) {}

/// What busctl prints (standard error included) for a call of the component.
std::string request(const std::string& state, const std::string& sequence_number) {
  return Program(
             "busctl --user --timeout=60 call org.adaptive.pos "
             "/org/adaptive/pos/POS__ORVEL1_Sys_Adaptive_01_instance1 "
             "org.adaptive.pos.ComponentState1 RequestState su '" +
             state + "' " + sequence_number + " 2>&1")
      .line();
}

std::future<std::string> request_in_background(const std::string& state,
                                               const std::string& sequence_number) {
  return std::async(std::launch::async, request, state, sequence_number);
}

class Component_client : public ::testing::Test {
 protected:
  Component_client() {
    ::unsetenv("POS_STATE_BUS");
    ::setenv("DBUS_SESSION_BUS_ADDRESS", daemon_.line().c_str(), 1);
  }

  using Handler = std::function<void(ComponentClient&, const std::string&, std::uint32_t)>;

  /// A client on the bus.
  void create(Handler handler) {
    start(std::move(handler));
    EXPECT_TRUE(is_on_bus());
  }
  /// A client whose handler waits until the test holds it, as an application's does.
  void start(Handler handler) {
    const std::lock_guard lock(mutex_);
    client_ = createComponentClient(instance, [this, handler = std::move(handler)](
                                                  const std::string& state, std::uint32_t number) {
      ComponentClient* client = nullptr;
      {
        const std::lock_guard wait(mutex_);
        client = client_.get();
      }
      if (client != nullptr) handler(*client, state, number);
    });
  }
  static bool is_on_bus() {
    return test::eventually(
        [] { return request("", "1").find("expected a state name") != std::string::npos; });
  }
  /// A handler that is called meanwhile finds nobody to confirm to.
  void destroy() {
    std::unique_ptr<ComponentClient> ending;
    {
      const std::lock_guard lock(mutex_);
      ending = std::move(client_);
    }
  }

  Program daemon_{"dbus-daemon --session --nofork --nopidfile --print-address=1"};
  std::mutex mutex_;  ///< guards client_
  std::unique_ptr<ComponentClient> client_;
};

TEST_F(Component_client, answers_when_the_confirmation_comes_later_and_serves_others_meanwhile) {
  std::promise<void> asked;
  create([&asked](ComponentClient& client, const std::string& state, std::uint32_t number) {
    if (state == "slow") {
      asked.set_value();
    } else {
      client.confirm(number, state, 0);
    }
  });
  auto slow = request_in_background("slow", "1");
  ASSERT_EQ(asked.get_future().wait_for(deadline), std::future_status::ready);
  EXPECT_EQ(request(std::string(128, 'x'), "2"), "u 0") << "the longest name";
  EXPECT_EQ(slow.wait_for(0s), std::future_status::timeout);
  client_->confirm(1, "slow", 5);
  EXPECT_EQ(slow.get(), "u 5");
}

TEST_F(Component_client, a_handler_may_wait_for_a_thread_that_is_confirming) {
  // An application that guards its state with one mutex: its signal thread confirms while holding
  // it, just as a request from the bus comes to wait for it.
  std::mutex state_mutex;
  std::promise<void> waiting;
  create([&](ComponentClient& client, const std::string& state, std::uint32_t number) {
    waiting.set_value();
    const std::lock_guard lock(state_mutex);
    client.confirm(number, state, 0);
  });
  std::future<std::string> answer;
  {
    const std::lock_guard lock(state_mutex);
    answer = request_in_background("kOn", "3");
    ASSERT_EQ(waiting.get_future().wait_for(deadline), std::future_status::ready);
    client_->confirm(0, "kPrepSD", 0);
  }
  EXPECT_EQ(answer.get(), "u 0");
}

TEST_F(Component_client, a_request_that_is_never_confirmed_gives_way_to_later_ones) {
  std::atomic<int> calls = 0;
  create([&calls](ComponentClient& client, const std::string& state, std::uint32_t number) {
    ++calls;  // first: who waits for the confirmation counts on it
    if (state == "kOn") client.confirm(number, state, 0);
  });
  std::vector<std::future<std::string>> waiting;
  const auto leave_open = [&](int number) {
    const int before = calls;
    waiting.push_back(request_in_background("kPrepSD", std::to_string(number)));
    ASSERT_TRUE(test::eventually([&] { return calls > before; }));
  };
  leave_open(1);
  EXPECT_EQ(request("kOn", "1"), "u 0");
  EXPECT_THAT(waiting.front().get(), HasSubstr("later requests came")) << "no stale answer";
  waiting.clear();

  for (int number = 1; number <= 33; ++number)
    leave_open(number);
  EXPECT_THAT(waiting.front().get(), HasSubstr("later requests came")) << "the oldest";
  EXPECT_EQ(request("kOn", "34"), "u 0");
  EXPECT_EQ(waiting.back().wait_for(0s), std::future_status::timeout);
  destroy();
}

TEST_F(Component_client, publishes_every_confirmation_also_those_that_nobody_asked_for) {
  create(confirm);
  Program monitor("stdbuf -oL dbus-monitor --session \"type='signal',member='StateConfirmed'\"");
  // The monitor is on the bus once it prints the signal that told it its name.
  while (monitor.line().find("NameAcquired") == std::string::npos) {
  }
  const auto next = [&monitor] {
    std::string line;
    while (line.find("StateConfirmed") == std::string::npos)
      line = monitor.line();
    std::string values;
    for (int i = 0; i < 3; ++i) {
      line = monitor.line();
      values += line.substr(line.find_first_not_of(' ')) + (i < 2 ? ", " : "");
    }
    return values;
  };
  client_->confirm(0, "kPrepSD", 0);
  EXPECT_EQ(next(), "uint32 0, string \"kPrepSD\", uint32 0");
  EXPECT_EQ(request("kOn", "9"), "u 0");
  EXPECT_EQ(next(), "uint32 9, string \"kOn\", uint32 0");
}

TEST_F(Component_client, refuses_what_makes_no_sense_or_is_too_much_and_at_its_end_what_waits) {
  std::atomic<int> calls = 0;
  std::promise<void> go_on, go_on_again;
  create([&](ComponentClient&, const std::string&, std::uint32_t) {
    const int call = ++calls;
    if (call <= 2) (call == 1 ? go_on : go_on_again).get_future().wait();
  });
  EXPECT_THAT(request("kOn", "0"), HasSubstr("expected 1 or more"));
  EXPECT_THAT(request("", "1"), HasSubstr("expected a state name"));
  EXPECT_THAT(request(std::string(129, 'x'), "1"), HasSubstr("expected a state name"));
  EXPECT_EQ(calls, 0);

  std::vector<std::future<std::string>> answers;
  const auto ask = [&] {
    answers.push_back(request_in_background("kOn", std::to_string(answers.size() + 1)));
  };
  while (answers.size() < 34)
    ask();
  const auto refused = [&] {
    return std::ranges::count_if(
        answers, [](auto& answer) { return answer.wait_for(0s) == std::future_status::ready; });
  };
  EXPECT_TRUE(test::eventually([&] { return refused() == 2; }));
  go_on.set_value();
  EXPECT_TRUE(test::eventually([&] { return calls == 2; }));
  ask();  // in the place of the one whose handler has returned
  EXPECT_TRUE(test::eventually([&] { return refused() == 3; }));
  ask();
  EXPECT_TRUE(test::eventually([&] { return refused() == 4; }));
  go_on_again.set_value();
  destroy();
  std::map<std::string, int> told;
  for (auto& answer : answers)
    ++told[answer.get()];
  EXPECT_THAT(told, UnorderedElementsAre(Pair(HasSubstr("later requests came"), 1),
                                         Pair(HasSubstr("too many requests"), 3),
                                         Pair(HasSubstr("ended without a decision"), 32)));
}

TEST_F(Component_client, ends_while_requests_keep_coming) {
  for (int i = 0; i < 5; ++i) {
    create(confirm);
    const auto first = request_in_background("kOn", "1");
    const auto second = request_in_background("kOn", "2");
    (void)first.wait_for(std::chrono::milliseconds(10 * i));
    destroy();
  }
}

TEST_F(Component_client, a_bus_that_ends_costs_one_warning) {
  create(ignore);
  const test::Capture capture;
  daemon_.stop();
  EXPECT_TRUE(capture.wait_for([](const auto& record) {
    return record.text().find("the bus is gone") != std::string::npos;
  }));
  client_->confirm(0, "kOn", 0);
  client_->confirm(0, "kOn", 0);
  destroy();
  ASSERT_EQ(capture.records().size(), 1U);
  EXPECT_EQ(capture.records()[0].level, log::LogLevel::kWarn);
}

TEST_F(Component_client, a_daemon_that_does_not_answer_delays_neither_start_nor_end) {
  const auto quick = [this](int state_of_daemon, const std::function<void()>& step) {
    daemon_.signal(state_of_daemon);
    const auto start = std::chrono::steady_clock::now();
    step();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  };
  quick(SIGSTOP, [this] {
    start(confirm);
    client_->confirm(0, "kOn", 0);
    destroy();
    start(confirm);
  });
  daemon_.signal(SIGCONT);
  EXPECT_TRUE(is_on_bus());
  EXPECT_EQ(request("kOn", "1"), "u 0");
  quick(SIGSTOP, [this] {
    for (int i = 0; i < 5000; ++i)  // more than the connection holds
      client_->confirm(0, "kOn", 0);
    destroy();
  });
}

TEST_F(Component_client, a_thread_that_cannot_be_made_costs_one_warning) {
  test::Capture capture;
  const auto warned = [&capture] {
    return capture.wait_for([](const auto& record) {
      const auto text = record.text();
      return text.find("not on the bus") != std::string::npos &&
             text.find("Resource temporarily unavailable") != std::string::npos;
    });
  };
  {
    const test::No_threads none;
    start(ignore);
  }
  EXPECT_TRUE(warned()) << "the bus thread";
  sigset_t blocked;
  ::pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  EXPECT_FALSE(sigismember(&blocked, SIGTERM));

  capture.clear();
  daemon_.signal(SIGSTOP);
  start(ignore);
  const test::No_threads none;
  daemon_.signal(SIGCONT);
  EXPECT_TRUE(warned()) << "the handler's thread";
  destroy();
  EXPECT_EQ(capture.records().size(), 1U);
}

TEST_F(Component_client, a_bus_that_is_missing_taken_or_unknown_costs_one_warning_and_the_effect) {
  create(ignore);
  const test::Capture capture;
  const auto warning = [&capture](std::size_t count) {
    EXPECT_TRUE(test::eventually([&] { return capture.records().size() >= count; }));
    const auto warnings = capture.records();
    EXPECT_EQ(warnings.size(), count);
    EXPECT_EQ(warnings.back().level, log::LogLevel::kWarn);
    return warnings.back().text();
  };
  const auto second = createComponentClient(instance, [](const std::string&, std::uint32_t) {});
  EXPECT_THAT(warning(1), HasSubstr("not on the bus"));  // two processes of the same kind
  ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent", 1);
  start(ignore);
  EXPECT_THAT(warning(2), HasSubstr("not on the bus"));
  ::setenv("POS_STATE_BUS", "radio", 1);
  start(ignore);
  EXPECT_THAT(warning(3), HasSubstr("expected session, system or none, found \"radio\""));
  client_->confirm(0, "kOn", 0);
  ::setenv("POS_STATE_BUS", "none", 1);
  start(ignore);  // that is no fault
  EXPECT_THROW((void)createComponentClient(instance, nullptr), std::invalid_argument);
  destroy();
  EXPECT_EQ(capture.records().size(), 3U);
}

}  // namespace
}  // namespace ara::stm
