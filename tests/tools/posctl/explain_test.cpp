#include "tools/posctl/explain.h"

#include <gmock/gmock.h>

#include <stdexcept>

namespace {

using namespace lumo::services::diag;
using posctl::explain;
using posctl::Json;

TEST(Explain, a_map_matched_position_in_degrees_metres_and_seconds_where_it_is_valid) {
  PositioningMMPos position;
  position.latitude = {0x0b, 0x35, 0x32, 0xad, 0xd0};
  position.longitude = {0xfd, 0x4e, 0x02, 0x5d, 0xa0};
  position.altitude = {0xff, 0xff, 0x38};
  position.timeOfDay = {0x7a, 0x12, 0x19};
  position.state = {.validity = 0x3f, .matching = 0x42};
  Json expected{{"latitude", 48.137154}, {"longitude", -11.576124}, {"altitude", -2.0},
                {"timeOfDay", 80000.25}, {"statusMap", 3},          {"statusMapMatching", 2},
                {"positionSource", 4}};
  EXPECT_EQ(explain(position), expected);
  position.state.validity = 0x3d;
  expected["longitude"] = nullptr;
  EXPECT_EQ(explain(position), expected) << "what is not valid is null";
}

TEST(Explain, the_system_status_is_14_bytes_in_order) {
  PositioningStatusSystem system;
  system.overall = 1;
  system.lbl = 2;
  system.system6And7 = 0x0607;
  system.system10And11 = 0x0a0b;
  system.mapMatchingAnd13 = 0x0301;
  EXPECT_EQ(explain(system),
            Json::parse(R"({"overall": 1, "pgf": 0, "system2": 0, "lbl": 2, "system4": 0,
                            "system5": 0, "system6": 6, "system7": 7, "system8": 0, "system9": 0,
                            "system10": 10, "system11": 11, "mapMatching": 3, "system13": 1})"));
}

TEST(Explain, faults_of_consumed_services_by_name) {
  const BDPSomeipDataBusServiceNotAvailable faults{
      .entries = {1, 0, 1, 0x01, 0x02, 1, 3, 0, 0, 1, 2, 1, 1, 0, 2, 2, 9, 1, 0, 1, 7, 1, 0, 0, 1}};
  const auto told = explain(faults)["faults"];
  ASSERT_EQ(told.size(), 5U);
  EXPECT_EQ(told[0], Json({{"service", "GNSS"}, {"present", true}, {"occurrences", 258}}));
  std::vector<std::string> texts;
  for (const auto& fault : told)
    texts.push_back(posctl::fault_text(lumo::services::diag::Data_bus_fault::not_available, fault));
  EXPECT_THAT(texts,
              testing::ElementsAre("GNSS is missing now, for the 258th time",
                                   "GNSS.posGnssSatInfos is available again, it was missing once",
                                   "Time.times is missing now, for the 2nd time",
                                   "Time.9 is missing now, for the 1st time",
                                   "7.1 is available again, it was missing once"));
  const auto text = [](lumo::services::diag::Data_bus_fault kind, bool present,
                       unsigned occurrences) {
    return posctl::fault_text(
        kind, {{"service", "GNSS"}, {"present", present}, {"occurrences", occurrences}});
  };
  EXPECT_EQ(text(lumo::services::diag::Data_bus_fault::error_value_received, true, 113),
            "GNSS sends error values now, for the 113th time");
  EXPECT_EQ(text(lumo::services::diag::Data_bus_fault::implausible, false, 0xFFFF),
            "GNSS no longer sends implausible values, it did so 65535 times or more");
  const BDPSomeipDataBusServiceImplausible half{.entries = {1, 0, 1}};
  EXPECT_THROW(static_cast<void>(explain(half)), std::runtime_error);
}

}  // namespace
