#include "posService/posServiceImpl.h"

#include <gmock/gmock.h>

#include <limits>
#include <type_traits>

#include "binding/timestamp.h"
#include "diagnosisService/diagnosisServiceImpl.h"
#include "tests/clients/fixed_time.h"
#include "tests/clients/printing.h"
#include "tests/support/capture.h"
#include "tests/support/fake_runtime.h"

namespace lumo::services::positioning::datatypes {
/// Records are the same when what travels is.
template <class Record>
bool operator==(const Record& a, const Record& b) {
  std::vector<std::byte> payloads[2];
  binding::encode(a, payloads[0]);
  binding::encode(b, payloads[1]);
  return payloads[0] == payloads[1];
}
}  // namespace lumo::services::positioning::datatypes

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using Position = posServiceImpl::Position;
using Map_info = posServiceImpl::Map_info;

constexpr std::uint64_t start_us = 1'700'000'000'123'456;

Position at(std::uint64_t time_us, double latitude = 48.0, double longitude = 11.0) {
  Position position;
  position.LAT = latitude;
  position.LON = longitude;
  binding::set_timestamp(position, binding::Timestamp::of_us(time_us));
  return position;
}

Position only_time() {
  auto position = at(start_us);
  position.LAT = position.LON = boost::none;
  return position;
}

class Pos_service : public ::testing::Test {
 protected:
  Pos_service() { time_.now_us = start_us; }
  /// With a map-matched record just sent, so that the next one is one interval away.
  void start() {
    service_.init();
    service_.send_dr(at(start_us));
    runtime_.clear_updates();
    capture_.clear();
  }
  void pass_ms(std::uint64_t milliseconds) { time_.now_us += milliseconds * 1000; }
  std::vector<Position> positions() { return runtime_.published<Position>("positions"); }
  std::vector<Map_info> map_infos() { return runtime_.published<Map_info>("posMapInfo"); }

  Fake_runtime runtime_;
  Fixed_time time_;
  test::Capture capture_;
  diagnosisService::diagnosisServiceImpl diagnosis_;
  posServiceImpl service_{diagnosis_, time_};
};

TEST_F(Pos_service, sets_both_fields_before_it_is_offered_and_takes_the_offer_back) {
  service_.init();
  EXPECT_THAT(runtime_.offered(), Contains("Positioning_ProvidedSomeipServiceInstance"));
  Map_info only_value;
  only_value.mapInfo = 0;
  EXPECT_THAT(positions(), ElementsAre(only_time()));
  EXPECT_THAT(map_infos(), ElementsAre(only_value));
  service_.stop();
  service_.stop();
  EXPECT_THAT(runtime_.offered(), IsEmpty());
}

TEST_F(Pos_service, sends_nothing_before_it_is_initialised) {
  service_.stop();
  service_.update_positions(48.0, 11.0);
  service_.update_map_info(1);
  service_.send_dr(at(start_us));
  EXPECT_THAT(capture_.texts("PSRV"), SizeIs(3));
  service_.init();
  EXPECT_THAT(positions(), SizeIs(1));
}

TEST_F(Pos_service, publishes_any_pair_of_coordinates_with_fixed_values_and_a_map_matched_record) {
  start();
  service_.update_positions(1000.0, -11.25);
  Position expected = at(start_us, 1000.0, -11.25);
  expected.positionType = lumo::services::Position_type::gnss_dr;
  expected.messageCounter = 0;
  expected.altitudeMeanSeaLevel = 120.0F;
  expected.accuracyHorizontal = expected.accuracyVertical = 1.0F;
  expected.yawAngle = expected.speed2D = expected.speedVertical = 0.0F;
  expected.pitchAngle = expected.rollAngle = 0.0F;
  expected.accuracySpeed2D = expected.accuracySpeedVertical = expected.accuracyYawAngle = 1.0F;
  expected.statusTime = 1;
  expected.statusMapMatching = 0;
  EXPECT_THAT(positions(), ElementsAre(expected));
  Map_info map_info;
  map_info.statusMapMatching = 2;
  map_info.statusMap = 3;
  map_info.positionSource = lumo::services::positioning::datatypes::Position_source{1};
  map_info.preciseLocalTimeSeconds = expected.preciseLocalTimeSeconds;
  map_info.preciseLocalTimeNanoseconds = expected.preciseLocalTimeNanoseconds;
  EXPECT_THAT(map_infos(), ElementsAre(map_info));
}

TEST_F(Pos_service, a_coordinate_alone_publishes_only_the_time_and_is_not_counted) {
  start();
  for (int i = 0; i < 101; ++i) {
    service_.update_positions(48.0, 11.0);
    service_.update_positions(48.0, boost::none);
    service_.update_positions(boost::none, 11.0);
  }
  const auto all = positions();
  for (std::uint32_t i = 0; i < 101; ++i) {
    EXPECT_EQ(all[3 * i].messageCounter, i % 100);
    EXPECT_EQ(all[3 * i + 1], only_time());
    EXPECT_EQ(all[3 * i + 2], only_time());
  }
  EXPECT_THAT(map_infos(), SizeIs(101));
}

TEST_F(Pos_service, a_position_goes_out_as_map_matched_when_more_than_the_interval_has_passed) {
  start();
  Map_info expected;
  expected.statusMapMatching = 2;
  expected.statusMap = 3;
  expected.positionSource = lumo::services::positioning::datatypes::Position_source{4};
  auto position = at(start_us);
  position.preciseLocalTimeNanoseconds = boost::none;
  expected.preciseLocalTimeSeconds = position.preciseLocalTimeSeconds;
  constexpr std::uint64_t end_of_32_bit_ms = ((1ULL << 32U) - 1) * 1000;
  std::uint8_t counter = 0;
  for (const auto last_us : {start_us + 10'000'000, end_of_32_bit_ms}) {
    time_.now_us = last_us;
    service_.send_dr(at(start_us));
    runtime_.clear_updates();
    capture_.clear();
    pass_ms(1000);
    service_.send_dr(position);
    EXPECT_THAT(map_infos(), IsEmpty());
    EXPECT_THAT(capture_.records(), IsEmpty());
    EXPECT_EQ(diagnosis_.map_matched_position().message_counter, 0) << "told each of these only";
    pass_ms(1);
    position.messageCounter = ++counter;
    service_.send_dr(position);
    EXPECT_THAT(map_infos(), ElementsAre(expected));
    EXPECT_EQ(diagnosis_.map_matched_position().message_counter, counter);
  }
  service_.set_mm_new_position_calculation_interval_ms(5);
  pass_ms(6);
  service_.send_dr(at(start_us));
  EXPECT_THAT(map_infos(), SizeIs(2));
}

TEST_F(Pos_service, publishes_a_position_with_its_age_only_when_its_timestamp_is_complete) {
  start();
  auto position = at(start_us - 2'500);
  position.speed2D = 3.5F;
  service_.send_dr(position);
  position.age = 2'500;
  auto future = at(start_us + 700);
  service_.send_dr(future);
  future.age = 700;
  auto ancient = at(start_us - (1ULL << 32U) - 5);
  service_.send_dr(ancient);
  ancient.age = 5;
  EXPECT_THAT(positions(), ElementsAre(position, future, ancient));

  runtime_.clear_updates();
  for (const auto part :
       {&Position::preciseLocalTimeSeconds, &Position::preciseLocalTimeNanoseconds}) {
    auto incomplete = at(start_us);
    incomplete.*part = boost::none;
    service_.send_dr(incomplete);
  }
  EXPECT_THAT(positions(), IsEmpty());
}

TEST_F(Pos_service, repeats_the_same_position_only_when_told_to_send_all) {
  service_.set_always_send_all_valid_positions(false);
  start();
  // Whether each is sent after the one before it.
  const auto sent = [&](const Position& position) {
    runtime_.clear_updates();
    service_.send_dr(position);
    return positions().size() == 1;
  };
  auto standing = at(start_us + 1);
  standing.messageCounter = 7;
  EXPECT_FALSE(sent(standing)) << "time stamp and counter make no new position";
  binding::for_each_member<Position>([&](const auto& member) {
    if (member.name == "messageCounter" || member.name == "age" ||
        member.name.starts_with("preciseLocalTime")) {
      return;
    }
    auto changed = standing;
    auto& value = changed.*member.pointer;
    for (const auto number : {1, 2}) {
      value = static_cast<std::remove_cvref_t<decltype(*value)>>(number);
      EXPECT_TRUE(sent(changed)) << member.name;
      EXPECT_FALSE(sent(changed)) << member.name;
    }
    EXPECT_TRUE(sent(standing)) << member.name;
  });
  EXPECT_TRUE(sent(only_time()));
  EXPECT_FALSE(sent(only_time())) << "absent equals absent";
  const auto nowhere = at(start_us, std::numeric_limits<double>::quiet_NaN());
  EXPECT_TRUE(sent(nowhere));
  EXPECT_FALSE(sent(nowhere));

  for (int round = 0; round < 2; ++round) {
    pass_ms(1001);
    EXPECT_FALSE(sent(nowhere));
    EXPECT_THAT(map_infos(), SizeIs(1)) << "goes out as map-matched all the same";
  }
}

}  // namespace
