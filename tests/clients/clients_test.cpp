#include <gmock/gmock.h>

#include <limits>
#include <utility>

#include "ara/log/logger.h"
#include "clients/gnssClientImpl.h"
#include "tests/clients/fixed_time.h"
#include "tests/clients/printing.h"
#include "tests/support/capture.h"
#include "tests/support/fake_runtime.h"

namespace {

using ::testing::ElementsAre;
using ::testing::SizeIs;
using ::testing::StartsWith;

using gnssClient::gnssClientImpl;
using Position = gnssClientImpl::Position;
using Quality = gnssClientImpl::Quality;
using Satellite = gnssClientImpl::Satellite;
using binding::Value_type;

Position sample(boost::optional<std::uint32_t> type, std::uint32_t counter) {
  Position position;
  if (type) position.positionType = lumo::services::Position_type{*type};
  position.messageCounter = counter;
  return position;
}

class Gnss_client : public ::testing::Test {
 protected:
  Gnss_client() {
    time_.now_us = 1'700'000'000'250'000;
    client_.set_position_callback([this](const Position& p) { positions_.push_back(p); });
    client_.set_sat_infos_callback(
        [this](const std::vector<Satellite>& s) { satellites_.push_back(s.size()); });
  }
  void connect() {
    client_.init();
    runtime_.find({1});
    capture_.clear();
  }
  std::vector<std::string> pipeline_lines() {
    return capture_.texts(ara::log::DefaultLogger().ContextId());
  }

  Fake_runtime runtime_;
  Fixed_time time_;
  test::Capture capture_;
  gnssClientImpl client_{time_};
  std::vector<Position> positions_;
  std::vector<std::size_t> satellites_;
};

TEST_F(Gnss_client, forwards_one_sample_of_the_wanted_type_unchanged_unless_told_to_restamp) {
  connect();
  auto last = sample(1, 2);
  last.preciseLocalTimeSeconds = 5;
  std::vector samples{sample(1, 1), last};
  runtime_.notify("positions", samples);
  client_.set_ignore_gnss_timestamps(true);
  runtime_.notify("positions", samples);
  EXPECT_THAT(pipeline_lines(), SizeIs(1)) << "about the timestamp";
  client_.set_use_gnss_dr(true);
  runtime_.notify("positions", samples);
  runtime_.notify("positions", std::vector{sample(boost::none, 3)});
  runtime_.notify("positions", std::vector<Position>{});
  EXPECT_THAT(positions_, SizeIs(2)) << "none is of the other type";
  samples.back().LAT = 48.5;
  samples.back().LAT_valueType = Value_type::physical_value;
  samples.push_back(sample(2, 4));
  runtime_.notify("positions", samples);

  ASSERT_EQ(positions_.size(), 3U);
  EXPECT_EQ(positions_[0].messageCounter, 2U);
  EXPECT_EQ(positions_[0].preciseLocalTimeSeconds, 5U);
  EXPECT_FALSE(positions_[0].preciseLocalTimeNanoseconds);
  EXPECT_EQ(positions_[1].messageCounter, 2U);
  EXPECT_EQ(positions_[1].preciseLocalTimeSeconds, 1'700'000'000U);
  EXPECT_EQ(positions_[1].preciseLocalTimeNanoseconds, 250'000'000U);
  EXPECT_EQ(positions_[2].messageCounter, 4U);
  EXPECT_EQ(positions_[2].LAT, 48.5) << "completed from the other type";
  EXPECT_EQ(positions_[2].preciseLocalTimeSeconds, 1'700'000'000U) << "restamped all the same";
}

TEST_F(Gnss_client, passes_quality_records_on_one_by_one_once_logged_and_satellites_as_a_whole) {
  client_.set_received_gnss_data_logging(true);
  client_.set_positions_quality_callback(
      [](const Quality&) { ara::log::LogInfo() << "passed on"; });
  connect();
  runtime_.notify("positionsQuality", std::vector<Quality>(2));
  EXPECT_THAT(pipeline_lines(),
              ElementsAre(StartsWith("###### positions quality from gnss: positionType value"),
                          "passed on", StartsWith("###### positions quality"), "passed on"));
  runtime_.notify("posGnssSatInfos", std::vector<Satellite>(3));
  runtime_.notify("posGnssSatInfos", std::vector<Satellite>{});
  EXPECT_THAT(satellites_, ElementsAre(3, 0));
}

TEST_F(Gnss_client, tells_of_a_field_s_faults_when_they_come_and_when_they_go) {
  using Field = gnssClientImpl::Field;
  using clients::Data_faults;
  std::vector<std::pair<Field, Data_faults>> told;
  client_.set_data_faults_callback(
      [&](Field field, const Data_faults& faults) { told.emplace_back(field, faults); });
  connect();
  const auto expect = [&](const std::vector<Position>& samples,
                          const std::vector<std::pair<Field, Data_faults>>& expected) {
    runtime_.notify("positions", samples);
    EXPECT_EQ(std::exchange(told, {}), expected);
  };
  constexpr Data_faults none;
  constexpr Data_faults error{.error_value = true};
  constexpr Data_faults implausible{.implausible = true};
  const auto with = [](auto member, auto value, auto quality_member, auto quality) {
    auto position = sample(1, 1);
    position.*member = value;
    position.*quality_member = quality;
    return position;
  };
  const auto latitude = [&](double value, Value_type quality = Value_type::physical_value) {
    return with(&Position::LAT, value, &Position::LAT_valueType, quality);
  };

  expect({sample(1, 1), latitude(90), latitude(-90), latitude(91, Value_type::init)}, {});
  expect({latitude(1, Value_type::error), sample(1, 1)}, {{Field::positions, error}});
  expect({latitude(2, Value_type::error)}, {});
  expect({latitude(1)}, {{Field::positions, none}});

  for (const auto& wrong :
       {latitude(90.001), latitude(std::numeric_limits<double>::quiet_NaN()),
        latitude(1, Value_type{5}),
        with(&Position::LON, boost::none, &Position::LON_valueType, Value_type::physical_value),
        with(&Position::LON, -180.5, &Position::LON_valueType, Value_type::physical_value),
        with(&Position::speed2D, std::numeric_limits<float>::infinity(),
             &Position::speed2D_valueType, Value_type::physical_value),
        with(&Position::preciseLocalTimeNanoseconds, 1'000'000'000U,
             &Position::preciseLocalTimeNanoseconds_valueType, Value_type::physical_value)}) {
    expect({wrong}, {{Field::positions, implausible}});
    expect({}, {});
    expect({sample(1, 1)}, {{Field::positions, none}});
  }
}

}  // namespace
