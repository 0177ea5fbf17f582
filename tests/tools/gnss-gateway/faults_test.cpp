#include <gmock/gmock.h>

#include <fstream>
#include <stdexcept>

#include "tests/support/error_of.h"
#include "tests/support/temporary_folder.h"
#include "tools/gnss-gateway/fault_plan.h"

namespace gateway {
namespace {

using namespace std::chrono_literals;

TEST(Faults, the_plan_tells_and_clears_what_is_in_force_and_what_waits) {
  Fault_plan plan;
  plan.add(parse_fault("off@1+2"), 10s);
  plan.add(parse_fault("jump=5"), 10s);
  EXPECT_EQ(plan.next_due(), 10s);
  EXPECT_EQ(plan.advance(10s).begun.size(), 1U);
  EXPECT_FALSE(plan.service().off);
  EXPECT_EQ(plan.next_due(), 11s);
  EXPECT_EQ(plan.advance(11s).begun.at(0).text, "off@1+2");
  EXPECT_TRUE(plan.service().off);
  EXPECT_EQ(plan.clear("drift", 12s), 0U);
  EXPECT_EQ(plan.clear("jump", 12s), 1U);
  EXPECT_EQ(plan.advance(12s).ended.at(0).text, "jump=5");
  EXPECT_EQ(plan.advance(13s).ended.at(0).text, "off@1+2");
  EXPECT_FALSE(plan.service().off);
  EXPECT_EQ(plan.next_due(), Fault_time::max());
  for (const char* fault : {"jump=1", "missing=LAT", "jump=2@1", "missing=LON@1"})
    plan.add(parse_fault(fault), 13s);
  EXPECT_EQ(plan.advance(13s).begun.size(), 2U);
  EXPECT_EQ(plan.advance(14s).ended.size(), 1U) << "jump=1 is replaced";
  EXPECT_EQ(plan.clear("missing=LON@1", 14s), 1U) << "and not missing=LAT";
  EXPECT_EQ(plan.clear("", 14s), 3U);
  EXPECT_EQ(plan.advance(14s).ended.size(), 3U);
  for (std::size_t i = 0; i < Fault_plan::max_faults; ++i)
    plan.add(parse_fault("off@100"), 13s);
  EXPECT_THROW(plan.add(parse_fault("off@100"), 13s), std::invalid_argument);
  EXPECT_EQ(plan.clear("", 14s), Fault_plan::max_faults);
  EXPECT_TRUE(plan.advance(14s).ended.empty()) << "none has begun";
  EXPECT_TRUE(plan.list().empty());
}

TEST(Faults, the_end_of_a_fault_sends_what_it_holds) {
  Fault_plan plan;
  plan.add(parse_fault("reorder@0+1"), 0s);
  EXPECT_EQ(plan.advance(0s).begun.size(), 1U);
  for (int message = 0; message < 3; ++message)
    plan.pass(0s, {});
  EXPECT_EQ(plan.advance(1s).due.size(), 3U);
}

TEST(Faults, a_wrong_request_says_what_was_expected) {
  const std::pair<const char*, const char*> cases[] = {
      {"jmup=5", "fault \"jmup=5\": there is no fault \"jmup\"; did you mean \"jump\"?"},
      {"jump=far", "expected a number from -10000000 to 10000000 (m), found \"far\""},
      {"jump=nan", "found \"nan\""},
      {"delay=0", "expected a number from 0.001 to 60 (s), found \"0\""},
      {"off=1", "off takes no value"},
      {"only-type=DR", "expected one of GNSS, GNSS-DR, found \"DR\""},
      {"off@", "expected a start in seconds from 0 to 1000000, found \"\""},
      {"off@1+0", "expected a duration in seconds from 0.001 to 1000000, found \"0\""},
  };
  for (const auto& [text, problem] : cases)
    EXPECT_THAT(test::error_of<std::invalid_argument>(
                    [&, request = text] { static_cast<void>(parse_fault(request)); }),
                testing::HasSubstr(problem));
  const Temporary_folder folder;
  const auto path = folder / "scenario";
  std::ofstream(path) << "# a drive\n\n  jump=5@10+5  # east\r\noff@30\nofff\n";
  EXPECT_THAT(
      test::error_of<std::invalid_argument>([&] { static_cast<void>(read_scenario(path)); }),
      testing::HasSubstr("scenario\", line 5: fault \"offf\": there is no fault"));
}

}  // namespace
}  // namespace gateway
