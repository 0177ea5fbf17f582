#include "tools/gnss-gateway/script.h"

#include <gmock/gmock.h>

#include <fstream>
#include <string>

#include "binding/timestamp.h"
#include "posService/positioning_records.h"
#include "tests/clients/printing.h"
#include "tests/support/error_of.h"
#include "tests/support/temporary_folder.h"
#include "tests/tools/gnss-gateway/said.h"
#include "tools/posctl/notification_json.h"

namespace gateway {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr Context context{
    .message_counter = 7, .precise_local_time = 2'000'000'000s + 500ms, .update_rate_hz = {}};

Notification notification_of(const Script_line& line) {
  Notification all;
  line.add_to(all, context);
  return all;
}

TEST(Script, a_line_needs_only_what_it_is_about_and_may_say_or_leave_out_every_member) {
  const auto positions = [](const char* line) {
    return said(notification_of(Script_line(line)).positions);
  };
  const std::string told =
      " messageCounter=7 LAT=48.5+ speed2D=3.0+ preciseLocalTimeSeconds=2000000000+ "
      "preciseLocalTimeNanoseconds=500000000+";
  EXPECT_THAT(
      positions(R"({"t": 1.5, "field": "positions", "records": [{"LAT": 48.5, "speed2D": 3}]})"),
      ElementsAre("positionType=GNSS" + told, "positionType=GNSS-DR" + told));
  EXPECT_THAT(positions(R"({"t": 0, "field": "positions", "records": [
      {"positionType": "GNSS", "messageCounter": null, "LAT": 91, "LAT_valueType": 7, "LON": 11,
       "LON_valueType": null, "preciseLocalTimeSeconds": 5, "preciseLocalTimeSeconds_valueType": 1}]})"),
              ElementsAre("positionType=GNSS LAT=91.0 LAT_valueType=7 LON=11.0 "
                          "preciseLocalTimeSeconds=5 preciseLocalTimeSeconds_valueType=Init"));
}

TEST(Script, a_recording_of_the_application_is_sent_with_the_ages_that_it_had) {
  const Temporary_folder folder;
  lumo::services::positioning::datatypes::DT_positions_struct published;
  const auto watched = [&](double received, double age) {
    return posctl::notification_json("positions", std::vector{published}, received, age).dump();
  };
  binding::set_timestamp(published, binding::Timestamp::of(99s));
  const auto initial = watched(99.5, 0.5);
  binding::set_timestamp(published, binding::Timestamp::of(100s + 150ms));
  published.LAT = 48.5;
  published.statusPosition = 2;
  published.age = 12;
  std::ofstream(folder / "watch.json")
      << initial << "\n\n"
      << watched(100.25, 0.1) << "\n"
      << R"({"schema":1,"field":"posMapInfo","received":100.26,"records":[{"statusMap":3}]})"
      << "\n"
      << R"({"received":101,"field":"posGnssSatInfos","records":[]})"
      << "\n"
      << R"({"received":101,"field":"positionsQuality","records":[{"hDOP":2}]})";
  Script script(folder / "watch.json");
  script.check();
  const auto first = script.next_instant();
  ASSERT_EQ(first.size(), 1U);
  EXPECT_EQ(first[0].time, 750ms);
  const auto position = notification_of(first[0].line).positions.at(1);
  EXPECT_EQ(position.LAT, 48.5);
  EXPECT_EQ(binding::timestamp_of(position)->since_epoch(), context.precise_local_time - 100ms);
  const auto second = script.next_instant();
  ASSERT_EQ(second.size(), 2U) << "two fields at the same time";
  EXPECT_EQ(second[1].time, 1500ms);
  EXPECT_TRUE(script.next_instant().empty());
}

TEST(Script, a_wrong_line_says_where_and_what) {
  const std::pair<const char*, const char*> cases[] = {
      {"[]", "line 2: expected a JSON object"},
      {R"({"field": "positions", "records": [{}]})", "line 2: expected a time"},
      {R"({"t": 0, "field": "position", "records": [{}]})",
       "positionsQuality or posGnssSatInfos, found \"position\""},
      {R"({"t": 0, "field": "positions"})", "expected a list as \"records\", found null"},
      {R"({"t": 0, "field": "positions", "records": []})", "expected a record"},
      {R"({"t": 0, "field": "positions", "records": [{"LAT": "x"}]})",
       "expected a number as \"LAT\", found \"x\""},
      {R"({"t": 0, "field": "positions", "records": [{"LATT": 1}]})", "no member \"LATT\""},
      {R"({"t": 0, "field": "positions", "records": [{"messageCounter": -1}]})",
       "from 0 to 4294967295"},
      {R"({"received": 0, "field": "positions", "records": [{}]})", "expected the time as \"t\""},
      {R"({"t": -1, "field": "positions", "records": [{}]})",
       "expected a time in seconds from 0, found -1"},
      {R"({"t": 0.5, "field": "positions", "records": [{}]})", "line 2: the time goes backwards"},
  };
  const Temporary_folder folder;
  for (const auto& [line, problem] : cases) {
    std::ofstream(folder / "script") << R"({"t": 1, "field": "positions", "records": [{}]})"
                                     << "\n"
                                     << line << "\n";
    EXPECT_THAT(test::error_of<std::runtime_error>([&] { Script(folder / "script").check(); }),
                HasSubstr(problem));
  }
  std::ofstream(folder / "script") << "\n";
  EXPECT_THAT(test::error_of([&] { Script(folder / "script").check(); }),
              HasSubstr("holds no notification"));
}

}  // namespace
}  // namespace gateway
