#include <gmock/gmock.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include "ara/time/slave_time_base.h"
#include "tests/support/error_of.h"

namespace ara::time {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;

SynchSlaveTimeBase open(const char* clock) {
  if (clock != nullptr) {
    ::setenv("POS_TIME_BASE", clock, 1);
  } else {
    ::unsetenv("POS_TIME_BASE");
  }
  return SlaveTimeBaseResourceProxy(SlaveTimeBaseResourceProxy::FindResource("synchronized"))
      .asSynchSlave();
}

std::string error_of_opening(const char* clock) {
  return test::error_of<std::runtime_error>([clock] { (void)open(clock); });
}

std::chrono::nanoseconds kernel(clockid_t id) {
  timespec now{};
  ::clock_gettime(id, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

TEST(Time_base, is_the_chosen_clock_of_the_kernel) {
  const struct {
    const char* name;
    clockid_t id;
  } cases[] = {{nullptr, CLOCK_REALTIME},
               {"", CLOCK_REALTIME},
               {"CLOCK_REALTIME", CLOCK_REALTIME},
               {"CLOCK_TAI", CLOCK_TAI}};
  for (const auto& [name, id] : cases) {
    std::optional<SynchSlaveTimeBase> base = open(name);
    const SynchSlaveTimeBase copy = *base;
    base.reset();
    const auto before = kernel(id);
    const auto read = copy.getCurrentTime();
    const auto after = kernel(id);
    EXPECT_LE(before, read);
    EXPECT_LE(read, after);
  }
}

TEST(Time_base, of_a_hardware_clock_is_read_through_its_device) {
  if (::access("/dev/ptp0", R_OK) != 0) GTEST_SKIP() << "no /dev/ptp0 on this machine";
  const auto base = open("/dev/ptp0");
  const auto first = base.getCurrentTime();
  const auto second = base.getCurrentTime();
  EXPECT_GT(first, 0ns);
  EXPECT_LT(first, second);
}

TEST(Time_base, that_cannot_be_used_is_named_with_the_reason_and_leaves_nothing_open) {
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
  };
  const auto before = descriptors();
  EXPECT_EQ(error_of_opening("CLOCK_MONOTONIC"),
            "environment variable POS_TIME_BASE: expected CLOCK_REALTIME, CLOCK_TAI or the path of "
            "a clock such as /dev/ptp0, found \"CLOCK_MONOTONIC\"");
  EXPECT_EQ(error_of_opening("/dev/ptp99"),
            "time base \"/dev/ptp99\" cannot be opened: No such file or directory");
  EXPECT_THAT(error_of_opening("/dev/null"),
              HasSubstr("time base \"/dev/null\" is not a readable clock: "));
  EXPECT_EQ(test::error_of([] { (void)SlaveTimeBaseResourceProxy::FindResource("other"); }),
            "time base resource \"other\" is unknown, there is \"synchronized\"");
  EXPECT_EQ(descriptors(), before);
}

}  // namespace
}  // namespace ara::time
