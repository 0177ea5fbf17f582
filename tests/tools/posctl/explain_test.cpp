#include "tools/posctl/explain.h"

#include <gmock/gmock.h>

#include <stdexcept>

#include "tools/posctl/position_table.h"
#include "tools/posctl/verdict.h"

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
  Json expected{{"latitude", 48.137154},
                {"longitude", -11.576124},
                {"altitude", -2.0},
                {"timeOfDay", 80000.25},
                {"statusMap", 3},
                {"statusMapMatching", 2},
                {"positionSource", "forwarded position"}};
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

TEST(Explain, a_status_of_no_group_belongs_to_no_monitor) {
  binding::Diagnosis_state state;
  state.statuses = {{3, 0, 1, 0}, {0, 0, 1, 0}};
  using diagnosisService::Monitor;
  EXPECT_EQ(posctl::status_of(Monitor{0, "", Status_group::none, 0}, state), nullptr);
  EXPECT_EQ(posctl::status_of(Monitor{0, "", Status_group::input, 0}, state), &state.statuses[1]);
  EXPECT_EQ(posctl::function_of(state.statuses[0]), "");
  EXPECT_EQ(posctl::function_of(state.statuses[1]), "gnss");
}

/// The state of an application to which positions flow, with no fault.
Json healthy() {
  Json status = Json::parse(R"({"position": {"none": false}, "process": {"uptimeMs": 60000},
      "clock": {"synchronised": true}, "ages": {
        "stampToArrival": {"last10S": {"count": 100, "p50Ns": 400000}},
        "handlerToSent": {"last10S": {"count": 100}},
        "betweenArrivals": {"last10S": {"count": 100, "sumNs": 10000000000}}}})");
  status["services"] = Json::parse(
      R"([{"service": "lumo::services::gnss::GNSS", "found": true, "cause": "", "eventGroups": []}])");
  binding::Diagnosis_state state;
  for (std::uint8_t byte = 0; byte < 11; ++byte)
    state.statuses.push_back({0, byte, static_cast<std::uint8_t>(byte == 0 ? 0 : 3), 5000});
  state.faults.push_back({0, 1, 0, false, 2, 60000});
  state.faults.push_back({2, 1, 1, false, 1, 60000});
  status["outputs"] = Json::object();
  status["system"] = Json::object();
  posctl::add_diagnosis(status, state, status["services"]);
  return status;
}

TEST(Verdict, is_the_worst_finding_and_names_the_cause) {
  const auto first = [](const Json& status) {
    const auto findings = posctl::findings_of(status);
    return findings.empty()
               ? "healthy: " + posctl::healthy_text(status)
               : std::string(name_of(findings.front().health)) + ": " + findings.front().text;
  };
  Json status = healthy();
  EXPECT_EQ(first(status), "healthy: 10.0 positions a second, 0.4 ms old on arrival");
  EXPECT_EQ(status["inputs"]["odometry"], "NotAvailable");
  EXPECT_THAT(
      posctl::fault_sentence(Data_bus_fault::not_available, status["dataBus"]["notAvailable"][0]),
      testing::MatchesRegex("GNSS there since .*, before that missing 2 times"));

  status["clock"]["synchronised"] = false;
  status["ages"]["stampToArrival"]["last10S"]["p50Ns"] = 3600e9;
  EXPECT_EQ(first(status),
            "degraded: positions are 3600.0 s old when they arrive, or a clock is "
            "wrong: ours is not synchronised");
  status["dataBus"]["implausible"][0]["present"] = true;
  status["ages"]["handlerToSent"]["last10S"]["count"] = 0;
  status["services"][0]["eventGroups"].push_back(
      {{"eventGroup", "0x0001"}, {"cause", "refused by 10.0.0.2"}});
  EXPECT_EQ(first(status),
            "failed: no position for 10 s; GNSS event group 0x0001: refused by 10.0.0.2");
  status["dataBus"]["notAvailable"][0].update(
      {{"present", true}, {"occurrences", 8}, {"cause", "the link is down"}});
  EXPECT_THAT(first(status), testing::MatchesRegex("failed: GNSS missing since .*, 8th time; last "
                                                   "cause: the link is down"));
}

TEST(Position_table, tells_the_rate_of_the_last_arrivals_and_the_begin_and_end_of_a_silence) {
  using namespace std::chrono_literals;
  posctl::Position_table table(false);
  posctl::Position_table::Time now{1h};
  const auto arrives_after = [&](std::chrono::milliseconds pause) {
    return table.rows(Json::object(), std::nullopt, now += pause);
  };
  for (int i = 0; i < 40; ++i)
    arrives_after(1s);
  for (int i = 0; i < 40; ++i)
    arrives_after(100ms);
  EXPECT_THAT(arrives_after(100ms), testing::ElementsAre(testing::HasSubstr("  10.0       -  no")));
  EXPECT_FALSE(table.silence(now + 1900ms));
  EXPECT_TRUE(table.silence(now + 2100ms));
  EXPECT_FALSE(table.silence(now + 4100ms)) << "has not doubled yet";
  EXPECT_THAT(arrives_after(5s),
              testing::ElementsAre(testing::HasSubstr("back after 5.0 s"), testing::_));
  EXPECT_EQ(arrives_after(100ms).size(), 1U);
}

}  // namespace
