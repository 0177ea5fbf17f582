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
      : output_(::popen(("echo $$; exec " + command).c_str(), "re")), pid_(std::stoi(Line())) {}
  ~Program() { Stop(); }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  void Stop() {
    if (output_ == nullptr) return;
    Signal(SIGTERM);
    Signal(SIGCONT);
    ::pclose(std::exchange(output_, nullptr));
  }
  void Signal(int number) const { ::kill(pid_, number); }

  std::string Line() {
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
void Confirm(ComponentClient& client, const std::string& state, std::uint32_t number) {
  client.confirm(number, state, 0);
}
/// One that leaves requests waiting.
void Ignore(ComponentClient&, const std::string&, std::uint32_t) {}

/// What busctl prints (standard error included) for a call of the component.
std::string Request(const std::string& state, const std::string& sequence_number) {
  return Program(
             "busctl --user --timeout=60 call org.adaptive.pos "
             "/org/adaptive/pos/POS__ORVEL1_Sys_Adaptive_01_instance1 "
             "org.adaptive.pos.ComponentState1 RequestState su '" +
             state + "' " + sequence_number + " 2>&1")
      .Line();
}

std::future<std::string> RequestInBackground(const std::string& state,
                                             const std::string& sequence_number) {
  return std::async(std::launch::async, Request, state, sequence_number);
}

class ComponentClientTest : public ::testing::Test {
 protected:
  ComponentClientTest() {
    ::unsetenv("POS_STATE_BUS");
    ::setenv("DBUS_SESSION_BUS_ADDRESS", daemon_.Line().c_str(), 1);
  }

  using Handler = std::function<void(ComponentClient&, const std::string&, std::uint32_t)>;

  /// A client on the bus.
  void Create(Handler handler) {
    Start(std::move(handler));
    EXPECT_TRUE(IsOnBus());
  }
  /// A client whose handler waits until the test holds it, as an application's does.
  void Start(Handler handler) {
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
  static bool IsOnBus() {
    return test::eventually(
        [] { return Request("", "1").find("expected a state name") != std::string::npos; });
  }
  /// A handler that is called meanwhile finds nobody to confirm to.
  void Destroy() {
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

TEST_F(ComponentClientTest, answers_when_the_confirmation_comes_later_and_serves_others_meanwhile) {
  std::promise<void> asked;
  Create([&asked](ComponentClient& client, const std::string& state, std::uint32_t number) {
    if (state == "slow") {
      asked.set_value();
    } else {
      client.confirm(number, state, 0);
    }
  });
  auto slow = RequestInBackground("slow", "1");
  ASSERT_EQ(asked.get_future().wait_for(deadline), std::future_status::ready);
  EXPECT_EQ(Request("kOn", "2"), "u 0");
  EXPECT_EQ(slow.wait_for(0s), std::future_status::timeout);
  client_->confirm(1, "slow", 5);
  EXPECT_EQ(slow.get(), "u 5");
}

TEST_F(ComponentClientTest, a_handler_may_wait_for_a_thread_that_is_confirming) {
  // An application that guards its state with one mutex: its signal thread confirms while holding
  // it, just as a request from the bus comes to wait for it.
  std::mutex state_mutex;
  std::promise<void> waiting;
  Create([&](ComponentClient& client, const std::string& state, std::uint32_t number) {
    waiting.set_value();
    const std::lock_guard lock(state_mutex);
    client.confirm(number, state, 0);
  });
  std::future<std::string> answer;
  {
    const std::lock_guard lock(state_mutex);
    answer = RequestInBackground("kOn", "3");
    ASSERT_EQ(waiting.get_future().wait_for(deadline), std::future_status::ready);
    client_->confirm(0, "kPrepSD", 0);
  }
  EXPECT_EQ(answer.get(), "u 0");
}

TEST_F(ComponentClientTest, a_request_that_is_never_confirmed_gives_way_to_later_ones) {
  std::atomic<int> calls = 0;
  Create([&calls](ComponentClient& client, const std::string& state, std::uint32_t number) {
    ++calls;  // first: who waits for the confirmation counts on it
    if (state == "kOn") client.confirm(number, state, 0);
  });
  std::vector<std::future<std::string>> waiting;
  const auto leave_open = [&](int number) {
    const int before = calls;
    waiting.push_back(RequestInBackground("kPrepSD", std::to_string(number)));
    ASSERT_TRUE(test::eventually([&] { return calls > before; }));
  };
  leave_open(1);
  EXPECT_EQ(Request("kOn", "1"), "u 0");
  EXPECT_THAT(waiting.front().get(), HasSubstr("later requests came")) << "no stale answer";
  waiting.clear();

  for (int number = 1; number <= 33; ++number)
    leave_open(number);
  EXPECT_THAT(waiting.front().get(), HasSubstr("later requests came")) << "the oldest";
  EXPECT_EQ(Request("kOn", "34"), "u 0");
  EXPECT_EQ(waiting.back().wait_for(0s), std::future_status::timeout);
  Destroy();
}

TEST_F(ComponentClientTest, publishes_every_confirmation_also_those_that_nobody_asked_for) {
  Create(Confirm);
  Program monitor("stdbuf -oL dbus-monitor --session \"type='signal',member='StateConfirmed'\"");
  // The monitor is on the bus once it prints the signal that told it its name.
  while (monitor.Line().find("NameAcquired") == std::string::npos) {
  }
  const auto next = [&monitor] {
    std::string line;
    while (line.find("StateConfirmed") == std::string::npos)
      line = monitor.Line();
    std::string values;
    for (int i = 0; i < 3; ++i) {
      line = monitor.Line();
      values += line.substr(line.find_first_not_of(' ')) + (i < 2 ? ", " : "");
    }
    return values;
  };
  client_->confirm(0, "kPrepSD", 0);
  EXPECT_EQ(next(), "uint32 0, string \"kPrepSD\", uint32 0");
  EXPECT_EQ(Request("kOn", "9"), "u 0");
  EXPECT_EQ(next(), "uint32 9, string \"kOn\", uint32 0");
}

TEST_F(ComponentClientTest, refuses_what_makes_no_sense_or_is_too_much_and_at_its_end_what_waits) {
  std::atomic<int> calls = 0;
  std::promise<void> go_on;
  Create([&](ComponentClient&, const std::string&, std::uint32_t) {
    if (++calls == 1) go_on.get_future().wait();
  });
  EXPECT_THAT(Request("kOn", "0"), HasSubstr("expected 1 or more"));
  EXPECT_THAT(Request("", "1"), HasSubstr("expected a state name"));
  EXPECT_THAT(Request(std::string(129, 'x'), "1"), HasSubstr("expected a state name"));
  EXPECT_EQ(calls, 0);

  std::vector<std::future<std::string>> answers;
  for (int i = 1; i <= 34; ++i)
    answers.push_back(RequestInBackground("kOn", std::to_string(i)));
  const auto refused = [&] {
    return std::ranges::count_if(
        answers, [](auto& answer) { return answer.wait_for(0s) == std::future_status::ready; });
  };
  EXPECT_TRUE(test::eventually([&] { return refused() == 2; }));
  go_on.set_value();
  Destroy();
  std::map<std::string, int> told;
  for (auto& answer : answers)
    ++told[answer.get()];
  EXPECT_THAT(told, UnorderedElementsAre(Pair(HasSubstr("too many requests"), 2),
                                         Pair(HasSubstr("ended without a decision"), 32)));
}

TEST_F(ComponentClientTest, ends_while_requests_keep_coming) {
  for (int i = 0; i < 5; ++i) {
    Create(Confirm);
    const auto first = RequestInBackground("kOn", "1");
    const auto second = RequestInBackground("kOn", "2");
    (void)first.wait_for(std::chrono::milliseconds(10 * i));
    Destroy();
  }
}

TEST_F(ComponentClientTest, a_bus_that_ends_costs_one_warning) {
  Create(Ignore);
  const test::Capture capture;
  daemon_.Stop();
  EXPECT_TRUE(capture.WaitFor([](const auto& record) {
    return record.Text().find("the bus is gone") != std::string::npos;
  }));
  client_->confirm(0, "kOn", 0);
  client_->confirm(0, "kOn", 0);
  Destroy();
  ASSERT_EQ(capture.Records().size(), 1U);
  EXPECT_EQ(capture.Records()[0].level, log::LogLevel::kWarn);
}

TEST_F(ComponentClientTest, a_daemon_that_does_not_answer_delays_neither_start_nor_end) {
  const auto quick = [this](int state_of_daemon, const std::function<void()>& step) {
    daemon_.Signal(state_of_daemon);
    const auto start = std::chrono::steady_clock::now();
    step();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  };
  quick(SIGSTOP, [this] {
    Start(Confirm);
    client_->confirm(0, "kOn", 0);
    Destroy();
    Start(Confirm);
  });
  daemon_.Signal(SIGCONT);
  EXPECT_TRUE(IsOnBus());
  EXPECT_EQ(Request("kOn", "1"), "u 0");
  quick(SIGSTOP, [this] {
    for (int i = 0; i < 5000; ++i)  // more than the connection holds
      client_->confirm(0, "kOn", 0);
    Destroy();
  });
}

TEST_F(ComponentClientTest, a_thread_that_cannot_be_made_costs_one_warning) {
  test::Capture capture;
  const auto warned = [&capture] {
    return capture.WaitFor([](const auto& record) {
      const auto text = record.Text();
      return text.find("not on the bus") != std::string::npos &&
             text.find("Resource temporarily unavailable") != std::string::npos;
    });
  };
  {
    const test::No_threads none;
    Start(Ignore);
  }
  EXPECT_TRUE(warned()) << "the bus thread";
  sigset_t blocked;
  ::pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  EXPECT_FALSE(sigismember(&blocked, SIGTERM));

  capture.Clear();
  daemon_.Signal(SIGSTOP);
  Start(Ignore);
  const test::No_threads none;
  daemon_.Signal(SIGCONT);
  EXPECT_TRUE(warned()) << "the handler's thread";
  Destroy();
  EXPECT_EQ(capture.Records().size(), 1U);
}

TEST_F(ComponentClientTest,
       a_bus_that_is_missing_taken_or_unknown_costs_one_warning_and_the_effect) {
  Create(Ignore);
  const test::Capture capture;
  const auto warning = [&capture](std::size_t count) {
    EXPECT_TRUE(test::eventually([&] { return capture.Records().size() >= count; }));
    const auto warnings = capture.Records();
    EXPECT_EQ(warnings.size(), count);
    EXPECT_EQ(warnings.back().level, log::LogLevel::kWarn);
    return warnings.back().Text();
  };
  const auto second = createComponentClient(instance, [](const std::string&, std::uint32_t) {});
  EXPECT_THAT(warning(1), HasSubstr("not on the bus"));  // two processes of the same kind
  ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent", 1);
  Start(Ignore);
  EXPECT_THAT(warning(2), HasSubstr("not on the bus"));
  ::setenv("POS_STATE_BUS", "radio", 1);
  Start(Ignore);
  EXPECT_THAT(warning(3), HasSubstr("expected session, system or none, found \"radio\""));
  client_->confirm(0, "kOn", 0);
  ::setenv("POS_STATE_BUS", "none", 1);
  Start(Ignore);  // that is no fault
  EXPECT_THROW((void)createComponentClient(instance, nullptr), std::invalid_argument);
  Destroy();
  EXPECT_EQ(capture.Records().size(), 3U);
}

}  // namespace
}  // namespace ara::stm
