/// What sentences mean; that it does not matter how a stream is cut and damaged is for
/// fuzz/nmea_fuzz.cpp to find.
#include <gmock/gmock.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "tools/nmea/Reader.h"

namespace nmea {
namespace {

using namespace std::chrono_literals;
using testing::DoubleEq;
using testing::Optional;

std::string sentence(const std::string& body) {
  unsigned sum = 0;
  for (const char c : body)
    sum ^= static_cast<unsigned char>(c);
  char digits[8];
  std::snprintf(digits, sizeof digits, "*%02X\r\n", sum);
  return "$" + body + digits;
}

struct Result {
  std::vector<Fix> fixes;
  Counters counters;
};

Result read(const std::string& text) {
  Reader reader;
  Result result;
  const auto sink = [&](const Fix& fix) { result.fixes.push_back(fix); };
  reader.feed(std::as_bytes(std::span(text)), sink);
  reader.finish(sink);
  result.counters = reader.counters();
  return result;
}

TEST(Nmea, one_instant_told_by_all_sentences_becomes_one_fix) {
  const auto result = read(
      sentence(
          "GNGGA,123519.25,4807.03812345,S,01131.00000001,W,4,12,0.9,545.4,M,46.9,M,1.0,0001") +
      sentence("GNRMC,123519.25,A,4807.03812345,S,01131.00000001,W,22.4,084.4,230394,003.1,W,R") +
      sentence("GNVTG,084.4,T,077.8,M,022.4,N,041.5,K,D") +
      sentence("GNGSA,A,3,04,05,,09,12,,,24,,,,,2.5,1.3,2.1,1") +
      sentence("GNGSA,A,3,65,66,,,,,,,,,,,2.5,1.3,2.1,2") +
      sentence("GPGSV,1,1,02,04,40,083,46,07,-1,360,,1") + sentence("GPGSV,1,1,01,04,40,083,49,8") +
      sentence("GLGSV,1,1,01,65,17,308,41,1"));
  ASSERT_EQ(result.fixes.size(), 1U);
  EXPECT_EQ(result.counters.errors(), 0U);
  EXPECT_EQ(result.counters.sentences, 8U);

  const Fix& fix = result.fixes[0];
  EXPECT_TRUE(fix.valid);
  EXPECT_THAT(fix.utc, Optional(std::chrono::sys_days(1994y / 3 / 23) + 12h + 35min + 19s + 250ms));
  // The doubles nearest to the exact quotients, not the sum of two rounded ones.
  EXPECT_EQ(fix.position->latitude, -(48 * 60e8 + 703812345.0) / 60e8);
  EXPECT_EQ(fix.position->longitude, -(11 * 60e8 + 3100000001.0) / 60e8);
  EXPECT_THAT(fix.altitude_msl, Optional(545.4));
  EXPECT_THAT(fix.altitude_wgs84(), Optional(DoubleEq(592.3)));
  EXPECT_THAT(fix.speed, Optional(DoubleEq(22.4 * 1852 / 3600)));
  EXPECT_THAT(fix.course, Optional(84.4));
  EXPECT_EQ(fix.quality, Fix_quality::rtk_fixed);
  EXPECT_EQ(fix.dimension, Fix_dimension::three);
  EXPECT_THAT(fix.hdop, Optional(0.9));
  EXPECT_THAT(fix.pdop, Optional(2.5));
  EXPECT_THAT(fix.vdop, Optional(2.1));
  EXPECT_EQ(fix.satellites_in_use, 12U);
  EXPECT_EQ(fix.satellites_in_view, 3U) << "the second signal shows no new satellite";
  EXPECT_EQ(fix.satellites_tracked, 2U);
  const std::vector<Satellite> expected{{Gnss_system::gps, 4, 40, 83, 49, true},
                                        {Gnss_system::gps, 7, -1, 0, std::nullopt, false},
                                        {Gnss_system::glonass, 65, 17, 308, 41, true}};
  EXPECT_EQ(fix.satellites, expected);
}

TEST(Nmea, what_stands_between_sentences_is_counted_and_costs_none) {
  const auto result =
      read("\xB5\x62$\x01 noise\n# $GPRMC in a comment\r\n" +
           sentence("GPRMC,000001,A,0000.1,N,00000.2,E,1.0,2.0,010100,,") +
           sentence("GPGSV,1,1,01,04,40,083,46") + "$GPGG" +
           sentence("GPRMC,000002,A,0000.1,N,00000.2,E,1.0,2.0,010100,,") + "$GPRMC,0000");
  ASSERT_EQ(result.fixes.size(), 2U);
  EXPECT_EQ(result.fixes[0].satellites_in_view, 1U);
  EXPECT_EQ(result.counters.comment_lines, 1U);
  EXPECT_EQ(result.counters.bad_character, 1U);
  EXPECT_EQ(result.counters.incomplete, 2U);
}

TEST(Nmea, faulty_sentences_are_skipped_and_counted_by_reason) {
  const std::string good = "GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,";
  std::vector<std::pair<std::string, std::uint64_t Counters::*>> cases{
      {"$" + good + "\r\n", &Counters::checksum_missing},
      {"$" + good + "*00\r\n", &Counters::checksum_mismatch},
      {"$" + good + "*4\r\n", &Counters::checksum_mismatch},
      {"$" + good + "*4G\r\n", &Counters::checksum_mismatch},
      {"$" + std::string(300, 'A') + "\r\n", &Counters::too_long},
      {"$GPGGA,\x80\r\n", &Counters::bad_character},
      {"$\r\n", &Counters::incomplete},
      {sentence("GPGSV,2,2,05,04,40,083,46"), &Counters::incomplete_groups},
  };
  for (const char* malformed : {
           "GPGGA,246060,4807.038,N,01131.000,E,1,08,0.9,,,,,,",
           "GPGGA,1235,4807.038,N,01131.000,E,1,08,0.9,,,,,,",
           "GPGGA,123519,9000.001,N,01131.000,E,1,08,0.9,,,,,,",
           "GPGGA,123519,4860.000,N,01131.000,E,1,08,0.9,,,,,,",
           "GPGGA,123519,4807.038,X,01131.000,E,1,08,0.9,,,,,,",
           "GPGGA,123519,4807.038,,01131.000,E,1,08,0.9,,,,,,",
           "GPGGA,123519,4807.038,N,,,1,08,0.9,,,,,,",
           "GPGGA,123519,4807.0e1,N,01131.000,E,1,08,0.9,,,,,,",
           "GPGGA,123519,4807.038,N,01131.000,E,9,08,0.9,,,,,,",
           "GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,12.0,f,,,,",
           "GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,1234567.0,M,,,,",
           "GPRMC,123519,A,4807.038,N,01131.000,E,nan,,230394,,",
           "GPRMC,123519,A,4807.038,N,01131.000,E,-1.0,,230394,,",
           "GPRMC,123519,A,4807.038,N,01131.000,E,1.0,360.1,230394,,",
           "GPRMC,123519,A,4807.038,N,01131.000,E,,,300294,,",
           "GPRMC,123519,A,4807.038,N,01131.000,E,,,30294,,",
           "GPZDA,123519,01,01,1979,00,00",
           "GPZDA,123519,01,01,2262,00,00",
           "GPGSV,2,3,02,04,40,083,46",
           "GPGSV,1,1,02,04,40,083,46,05,06",
           "GPGSA,A,3,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,",
       })
    cases.emplace_back(sentence(malformed), &Counters::malformed_field);
  for (const auto& [text, counter] : cases) {
    const auto result = read(text);
    EXPECT_EQ(result.counters.*counter, 1U) << text;
    EXPECT_EQ(result.counters.errors(), 1U) << text;
    for (const auto& fix : result.fixes)
      EXPECT_FALSE(fix.position || fix.satellites) << text;
  }
  const auto foreign =
      read(sentence("PGRME,15.0,M,45.0,M,25.0,M") + sentence("AIVDM,1,1") + sentence("GPXYZ,1"));
  EXPECT_EQ(foreign.counters.other_sentences, 3U);
  EXPECT_EQ(foreign.counters.errors(), 0U);
}

TEST(Nmea, the_date_is_carried_on_and_turns_at_midnight) {
  const auto result = read(sentence("GPGGA,235958.0,4807.038,N,01131.000,E,1,08,0.9,,,,,,") +
                           sentence("GPRMC,235959.0,A,4807.038,N,01131.000,E,,,311299,,") +
                           sentence("GPGGA,000000.5,4807.038,N,01131.000,E,1,08,0.9,,,,,,") +
                           sentence("GPGGA,235959.5,4807.038,N,01131.000,E,1,08,0.9,,,,,,") +
                           sentence("GPZDA,000001.0,01,01,2000,00,00"));
  constexpr Utc_time new_year = std::chrono::sys_days(2000y / 1 / 1);
  ASSERT_EQ(result.fixes.size(), 5U);
  EXPECT_FALSE(result.fixes[0].utc) << "no date was told yet";
  EXPECT_THAT(result.fixes[0].time_of_day, Optional(23h + 59min + 58s));
  EXPECT_THAT(result.fixes[1].utc, Optional(new_year - 1s));
  EXPECT_THAT(result.fixes[2].utc, Optional(new_year + 500ms));
  EXPECT_THAT(result.fixes[3].utc, Optional(new_year - 500ms))
      << "a late instant is not a day ahead";
  EXPECT_THAT(result.fixes[4].utc, Optional(new_year + 1s));
}

TEST(Nmea, a_repeated_sentence_is_a_duplicate_unless_it_tells_the_combined_solution) {
  const auto result = read(sentence("GPGGA,000001,0001.0,N,00001.0,E,1,08,0.9,,,,,,") +
                           sentence("GPGGA,000001,0002.0,N,00001.0,E,1,08,0.9,,,,,,") +
                           sentence("GNGGA,000001.00,0003.0,N,00001.0,E,1,08,0.9,,,,,,"));
  ASSERT_EQ(result.fixes.size(), 1U);
  EXPECT_EQ(result.counters.duplicates, 2U);
  EXPECT_EQ(result.fixes[0].position->latitude, 3.0 / 60);
}

TEST(Nmea, a_receiver_without_time_still_gives_one_fix_for_each_round) {
  const std::string round = sentence("GPGGA,,,,,,0,,,,,,,,") + sentence("GPRMC,,V,,,,,,,,,,N") +
                            sentence("GPGSV,1,1,01,04,40,083,46");
  const auto result = read(round + round + sentence("GPGGA,000001,,,,,0,,,,,,,,"));
  ASSERT_EQ(result.fixes.size(), 3U);
  for (const auto& fix : result.fixes)
    EXPECT_FALSE(fix.valid || fix.position || fix.utc);
  EXPECT_EQ(result.fixes[1].satellites_in_view, 1U);
  EXPECT_FALSE(result.fixes[2].satellites);
  EXPECT_EQ(result.counters.duplicates, 0U);
}

TEST(Nmea, the_recommended_minimum_decides_whether_a_fix_is_valid) {
  const std::string position = ",4807.038,N,01131.000,E,";
  const auto valid = [&](const std::string& gga_quality, const std::string& rmc) {
    return read(sentence("GPGGA,000001" + position + gga_quality + ",08,0.9,,,,,,") + rmc)
        .fixes.at(0)
        .valid;
  };
  EXPECT_TRUE(valid("1", ""));
  EXPECT_FALSE(valid("0", ""));
  EXPECT_TRUE(valid("0", sentence("GNRMC,000001,A" + position + ",,230394,,,A")));
  EXPECT_FALSE(valid("1", sentence("GNRMC,000001,V" + position + ",,230394,,,A")));
  EXPECT_FALSE(valid("1", sentence("GNRMC,000001,A" + position + ",,230394,,,N")));
  EXPECT_TRUE(valid("0", sentence("GNGNS,000001" + position + "NNA,09,1.5,,,,,")));
}

TEST(Nmea, a_group_with_a_gap_counts_once_and_shows_no_satellites) {
  const auto part = [](int number) {
    return sentence("GPGSV,4," + std::to_string(number) + ",13,04,40,083,46");
  };
  for (const auto& numbers : std::vector<std::vector<int>>{{2, 3, 4}, {1, 3, 4}, {1, 2, 4}}) {
    std::string text = sentence("GPGGA,000001,,,,,0,,,,,,,,");
    for (const int number : numbers)
      text += part(number);
    const auto result = read(text);
    EXPECT_EQ(result.counters.incomplete_groups, 1U);
    EXPECT_FALSE(result.fixes.at(0).satellites_in_view);
  }
  const auto cut_off = read(part(1) + part(2) + part(1) + part(2) + part(3) + part(4));
  EXPECT_EQ(cut_off.counters.incomplete_groups, 1U);
  EXPECT_TRUE(cut_off.fixes.at(0).satellites_in_view);
}

}  // namespace
}  // namespace nmea
