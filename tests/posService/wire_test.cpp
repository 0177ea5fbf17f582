#include "tests/clients/wire.h"

#include <gtest/gtest.h>

#include "ara/log/capture.h"
#include "diagnosisService/diagnosisServiceImpl.h"
#include "posService/posServiceImpl.h"
#include "tests/clients/printing.h"

namespace {

using Position = posServiceImpl::Position;
using Map_info = posServiceImpl::Map_info;

constexpr auto positioning = "lumo::services::positioning::Positioning";

TEST(Pos_service_on_the_wire, answers_subscribers_and_gets_from_the_first_moment_to_the_stop) {
  Wire wire{63};
  const ara::log::Capture capture;
  diagnosisService::diagnosisServiceImpl diagnosis;
  posServiceImpl service{diagnosis};
  const test::Finder finder{wire.gateway(), positioning};
  service.init();
  const auto found = finder.wait(1);
  ASSERT_EQ(found.size(), 1U);

  test::Seen<Position> positions;
  test::Seen<Map_info> map_infos;
  const auto consumer = wire.gateway().connect(found.front());
  consumer->subscribe(
      "positions",
      [&](tq::com::Payload payload) {
        for (const auto& position : decoded<std::vector<Position>>(payload))
          positions.add(position);
      },
      [](bool) {});
  consumer->subscribe(
      "posMapInfo",
      [&](tq::com::Payload payload) {
        for (const auto& map_info : decoded<std::vector<Map_info>>(payload))
          map_infos.add(map_info);
      },
      [](bool) {});
  ASSERT_TRUE(positions.wait_count(1));
  EXPECT_TRUE(positions.all()[0].preciseLocalTimeSeconds);
  EXPECT_FALSE(positions.all()[0].LAT);
  ASSERT_TRUE(map_infos.wait_count(1));
  EXPECT_EQ(map_infos.all()[0].mapInfo, 0U);
  EXPECT_FALSE(map_infos.all()[0].preciseLocalTimeSeconds);

  Position sent;
  sent.LAT = 48.137154;
  sent.preciseLocalTimeSeconds = 5;
  sent.preciseLocalTimeNanoseconds = 0;
  service.sendDR(sent);
  ASSERT_TRUE(positions.wait_count(2));
  EXPECT_EQ(positions.all()[1].LAT, sent.LAT);
  EXPECT_TRUE(positions.all()[1].age);
  ASSERT_TRUE(map_infos.wait_count(2));
  EXPECT_EQ(map_infos.all()[1].positionSource, 4U);

  test::Seen<std::size_t> answers;
  boost::optional<double> latitude;
  consumer->call(consumer->element("positions").getter.value(), {},
                 [&](tq::com::Return_code code, tq::com::Payload payload) {
                   if (code == tq::com::Return_code::ok) {
                     latitude = decoded<std::vector<Position>>(payload).at(0).LAT;
                   }
                   answers.add(static_cast<std::size_t>(code));
                 });
  ASSERT_TRUE(answers.wait_count(1));
  EXPECT_EQ(answers.all()[0], 0U);
  EXPECT_EQ(latitude, sent.LAT);

  service.stop();
  EXPECT_TRUE(finder.wait_none());
}

}  // namespace
