#include <gmock/gmock.h>

#include <cmath>
#include <fstream>
#include <stdexcept>

#include "binding/codec.h"
#include "binding/timestamp.h"
#include "tests/support/error_of.h"
#include "tests/support/temporary_folder.h"
#include "tools/gnss-gateway/fault_payload.h"
#include "tools/gnss-gateway/fault_plan.h"

namespace gateway {
namespace {

using namespace std::chrono_literals;
using namespace lumo::services::gnss::datatypes;
using binding::Value_type;
using lumo::services::Position_type;

constexpr Fault_time base_stamp = 2'000'000'000s;

/// What a source sends at `time`: both types, the counter the tenths of a second, the latitude the
/// seconds.
Message message_at(Fault_time time) {
  DT_positions_struct record;
  record.messageCounter = static_cast<std::uint32_t>(time / 100ms);
  record.LAT = std::chrono::duration<double>(time).count();
  record.LON = 10.0;
  record.speed2D = 3.0F;
  record.LAT_valueType = record.LON_valueType = record.speed2D_valueType =
      Value_type::physical_value;
  binding::set_timestamp(record, binding::Timestamp::of(base_stamp + time));
  DT_positionsQuality_struct quality;
  quality.hDOP = 1.0F;
  quality.statusFixType = Fix_type::three_dimensional;
  Message message;
  for (const auto type : {Position_type::gnss, Position_type::gnss_dr}) {
    record.positionType = quality.positionType = type;
    message.content.positions.push_back(record);
    message.content.quality.push_back(quality);
  }
  message.content.satellites.emplace();
  return message;
}

struct Sent {
  Fault_time time{};
  Message message;
  [[nodiscard]] const DT_positions_struct& position() const {
    return message.content.positions.back();
  }
};

/// What leaves a gateway with these faults when its source sends every 100 ms for a second.
std::vector<Sent> sent_with(const std::vector<std::string>& faults) {
  Fault_plan plan;
  for (const auto& fault : faults)
    plan.add(parse_fault(fault), 0s);
  std::vector<Sent> sent;
  const auto advance = [&](Fault_time now) {
    for (auto& message : plan.advance(now).due)
      sent.push_back({now, std::move(message)});
  };
  for (Fault_time now{}; now <= 5s; now += 10ms) {
    advance(now);
    if (now < 1s && now % 100ms == 0ms) plan.pass(now, message_at(now));
    advance(now);
  }
  return sent;
}

std::vector<std::uint32_t> counters(const std::vector<Sent>& sent) {
  std::vector<std::uint32_t> result;
  for (const auto& one : sent)
    if (!one.message.content.positions.empty()) result.push_back(*one.position().messageCounter);
  return result;
}

TEST(Faults, each_changes_what_it_says_while_it_is_in_force) {
  using Record = DT_positions_struct;
  struct Case {
    const char* fault;
    /// Of the message at 0.4 s; the fault is in force from 0.2 s to 0.6 s.
    bool (*is_wrong)(const Record& record, const Notification& all);
  };
  const auto stamp = [](const Record& record) {
    return binding::timestamp_of(record)->since_epoch();
  };
  static const auto offset = [stamp](const Record& record) {
    return stamp(record) - base_stamp - 400ms;
  };
  constexpr double metre = 1 / 111'195.08;
  const Case cases[] = {
      {"silence=positions",
       [](auto&, auto& all) { return all.positions.empty() && !all.quality.empty(); }},
      {"silence=posGnssSatInfos",
       [](auto&, auto& all) { return !all.satellites && !all.positions.empty(); }},
      {"stuck",
       [](auto& r, auto&) { return r.LAT == 0.2 && r.messageCounter == 4U && offset(r) == 0s; }},
      {"stuck-with-counter",
       [](auto& r, auto&) {
         return r.LAT == 0.2 && r.messageCounter == 2U && offset(r) == -200ms;
       }},
      {"accuracy=50",
       [](auto& r, auto& all) {
         return r.accuracyHorizontal == 50.0F && all.quality[0].hDOP == 10.0F && r.LAT != 0.4;
       }},
      {"drift=100",
       [](auto& r, auto&) { return std::abs(*r.LAT - 0.4 - 20 * metre) < 1e-9 && r.LON == 10.0; }},
      {"jump=-1000", [](auto& r, auto&) { return std::abs(*r.LAT - 0.4 + 1000 * metre) < 1e-8; }},
      {"off-globe", [](auto& r, auto&) { return r.LAT == 91.0 && r.LON == 181.0; }},
      {"not-a-number",
       [](auto& r, auto&) {
         return std::isnan(*r.LAT) && std::isnan(*r.speed2D) && offset(r) == 0s;
       }},
      {"infinity",
       [](auto& r, auto&) {
         return std::isinf(*r.LAT) && r.LAT_valueType == Value_type::physical_value;
       }},
      {"no-fix",
       [](auto& r, auto& all) {
         return !r.LAT && r.LAT_valueType == Value_type::error && offset(r) == 0s &&
                all.quality[0].statusFixType == Fix_type::none;
       }},
      {"value-type=7",
       [](auto& r, auto&) {
         return r.LAT == 0.4 && r.LAT_valueType == Value_type{7} && !r.yawAngle_valueType;
       }},
      {"value-type=absent", [](auto& r, auto&) { return r.LAT == 0.4 && !r.LAT_valueType; }},
      {"missing=speed2D",
       [](auto& r, auto&) { return !r.speed2D && !r.speed2D_valueType && r.LAT; }},
      {"missing=all",
       [](auto& r, auto&) {
         return !r.positionType && !r.LAT && !r.preciseLocalTimeSeconds_valueType;
       }},
      {"only-type=GNSS",
       [](auto& r, auto& all) {
         return all.positions.size() == 1 && r.positionType == Position_type::gnss &&
                all.quality.size() == 1;
       }},
      {"stamp-jump=-10", [](auto& r, auto&) { return offset(r) == -10s; }},
      {"future-stamps", [](auto& r, auto&) { return offset(r) == 60s; }},
      {"slow-clock=500000", [](auto& r, auto&) { return offset(r) == -100ms; }},
      {"week-rollover", [](auto& r, auto&) { return offset(r) == -1024 * 7 * 24h; }},
  };
  for (const auto& [fault, is_wrong] : cases) {
    SCOPED_TRACE(fault);
    const auto sent = sent_with({fault + std::string("@0.2+0.4")});
    ASSERT_EQ(sent.size(), 10U);
    const auto wrong = sent[4].message.content;
    EXPECT_TRUE(is_wrong(wrong.positions.empty() ? Record{} : wrong.positions.back(), wrong));
    for (const std::size_t place : {1U, 6U}) {
      const auto& right = sent[place].message.content;
      EXPECT_FALSE(is_wrong(right.positions.back(), right)) << place;
      EXPECT_DOUBLE_EQ(*sent[place].position().LAT, static_cast<double>(place) / 10);
    }
  }
}

TEST(Faults, time_and_order_of_notifications) {
  struct Case {
    std::vector<std::string> faults;
    std::vector<std::uint32_t> counters;
    Fault_time first;  ///< time of the first notification
    Fault_time last;
  };
  const std::vector<std::uint32_t> all{0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
  const Case cases[] = {
      {{}, all, 0ms, 900ms},
      {{"loss=100@0.2+0.5"}, {0, 1, 7, 8, 9}, 0ms, 900ms},
      {{"off"}, {}, 0ms, 0ms},
      {{"delay=2"}, all, 2s, 2900ms},
      {{"delay=2@0+0.5"}, all, 500ms, 900ms},  // its end releases what it holds
      {{"jitter=0.3"}, all, 0ms, 1200ms},
      {{"burst=0.4"}, all, 400ms, 1200ms},
      {{"duplicate@0.8"}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 8, 9, 9}, 0ms, 900ms},
      {{"reorder@0.5+0.4"}, {0, 1, 2, 3, 4, 6, 5, 8, 7, 9}, 0ms, 900ms},
      {{"delay=1", "duplicate@1.7"}, {0, 1, 2, 3, 4, 5, 6, 7, 7, 8, 8, 9, 9}, 1s, 1900ms},
  };
  for (const auto& [faults, expected, first, last] : cases) {
    SCOPED_TRACE(testing::PrintToString(faults));
    const auto sent = sent_with(faults);
    EXPECT_EQ(counters(sent), expected);
    if (sent.empty()) continue;
    EXPECT_GE(sent.front().time, first);
    EXPECT_LE(sent.front().time, first + 300ms);
    EXPECT_LE(sent.back().time, last);
    EXPECT_GE(sent.back().time, last - 300ms);
  }
}

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
  EXPECT_EQ(plan.clear("", 14s), 3U);
  EXPECT_EQ(plan.advance(14s).ended.size(), 3U);
  for (std::size_t i = 0; i < Fault_plan::max_faults; ++i)
    plan.add(parse_fault("off@100"), 13s);
  EXPECT_THROW(plan.add(parse_fault("off@100"), 13s), std::invalid_argument);
  EXPECT_EQ(plan.clear("", 14s), Fault_plan::max_faults);
  EXPECT_TRUE(plan.advance(14s).ended.empty()) << "none has begun";
  EXPECT_TRUE(plan.list().empty());
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

TEST(Faults, a_malformed_payload_cannot_be_read) {
  std::vector<std::byte> payload;
  binding::encode(message_at(0s).content.positions, payload);
  for (const auto malformation : {Malformation::truncated, Malformation::length,
                                  Malformation::wire_type, Malformation::noise}) {
    const auto bytes = malformed(payload, malformation);
    binding::Cursor cursor{bytes};
    std::vector<DT_positions_struct> records;
    EXPECT_ANY_THROW(binding::decode(cursor, records)) << static_cast<int>(malformation);
    EXPECT_NO_THROW(static_cast<void>(malformed({}, malformation)));
  }
}

}  // namespace
}  // namespace gateway
