/// What sentences mean; that it does not matter how a stream is cut and damaged is for
/// fuzz/nmea_fuzz.cpp to find.
#include <gmock/gmock.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "tools/nmea/reader.h"

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
                                        {Gnss_system::glonass, 1, 17, 308, 41, true}};
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
      {"$" + std::string(Framer::max_length, 'A') + "\r\n", &Counters::checksum_missing},
      {"$" + std::string(Framer::max_length + 1, 'A') + "\r\n", &Counters::too_long},
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
           "GPZDA,123519,01,01,1979,00,00",
           "GPZDA,123519,01,01,2262,00,00",
           "GPGSV,2,3,02,04,40,083,46",
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

TEST(Nmea, a_bad_field_costs_itself_only) {
  struct Case {
    const char* body;
    bool (*is_absent)(const Fix&);
  };
  const auto no_altitude = [](const Fix& fix) { return !fix.altitude_msl; };
  const auto no_speed = [](const Fix& fix) { return !fix.speed; };
  const auto no_course = [](const Fix& fix) { return !fix.course; };
  const auto no_date = [](const Fix& fix) { return !fix.utc; };
  for (const auto& [body, is_absent] : std::initializer_list<Case>{
           {"GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,12.0,f,,,,", no_altitude},
           {"GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,1234567.0,M,,,,", no_altitude},
           {"GPGGA,123519,4807.038,N,01131.000,E,1,-8,0.9,12.0,M,,,,",
            [](const Fix& fix) { return !fix.satellites_in_use && fix.altitude_msl; }},
           {"GPRMC,123519,A,4807.038,N,01131.000,E,nan,,,,", no_speed},
           {"GPRMC,123519,A,4807.038,N,01131.000,E,-1.0,,,,", no_speed},
           {"GPRMC,123519,A,4807.038,N,01131.000,E,1.0,360.1,,,", no_course},
           {"GPRMC,123519,A,4807.038,N,01131.000,E,,,300294,,", no_date},
           {"GPRMC,123519,A,4807.038,N,01131.000,E,,,30294,,", no_date},
           {"GPRMC,123519,A,4807.038,N,01131.000,E,,,2208-1,,", no_date},
           {"GPRMC,123519,A,4807.038,N,01131.000,E,,,,,,?", no_date},
       }) {
    const auto result = read(sentence(body));
    EXPECT_EQ(result.counters.malformed_field, 1U) << body;
    ASSERT_EQ(result.fixes.size(), 1U) << body;
    EXPECT_TRUE(result.fixes[0].valid && result.fixes[0].position) << body;
    EXPECT_TRUE(is_absent(result.fixes[0])) << body;
  }
  const auto partial =
      read(sentence("GPGGA,000001,,,,,0,,,,,,,,") + sentence("GPGSV,1,1,02,04,95,083,46,05,06"));
  EXPECT_EQ(partial.counters.malformed_field, 1U);
  const std::vector<Satellite> expected{{Gnss_system::gps, 4, std::nullopt, 83, 46, false}};
  EXPECT_EQ(partial.fixes.at(0).satellites, expected);
}

TEST(Nmea, placeholders_of_a_receiver_without_a_fix_are_no_errors) {
  for (const char* body : {"GPRMC,120000.0,V,8960.0000,N,00000.0000,E,0.0,0.0,000000,,",
                           "GPGGA,120000,0000.0000,N,00000.0000,E,0,00,99.9,0.0,M,,M,,0000",
                           "GPGGA,120000,0000.0000,,00000.0000,,0,,,-,M,,,,",
                           "GPGLL,0000.0000,N,00000.0000,E,120000,V,N", "GPRMC,,V,,,,,,,,,,N",
                           "GNGNS,120000,,,,,NNN,00,,,,,"}) {
    const auto result = read(sentence(body) + sentence("GPZDA,120000,00,00,0000,00,00") +
                             sentence("GPVTG,,T,,M,,N,,K,N") + sentence("GPHDT,,T"));
    EXPECT_EQ(result.counters.errors(), 0U) << body;
    ASSERT_EQ(result.fixes.size(), 1U) << body;
    EXPECT_FALSE(result.fixes[0].valid || result.fixes[0].position) << body;
  }
}

TEST(Nmea, without_a_word_on_validity_there_is_no_fix_but_date_and_satellites_are_kept) {
  const std::string gga = ",4807.038,N,01131.000,E,1,08,0.9,,,,,,";
  const auto result = read(
      sentence("GPGSV,1,1,01,04,40,083,46") + sentence("GPVTG,084.4,T,,M,022.4,N,,K") +
      sentence("GPZDA,120000,01,02,2024,00,00") + sentence("GPGGA,120001" + gga) +
      sentence("GPZDA,120002,01,02,2024,00,00") + sentence("GPGLL,4807.038,N,01131.000,E,120003") +
      sentence("GPGSV,1,1,01,05,40,083,46") + sentence("GPGGA,120004" + gga));
  ASSERT_EQ(result.fixes.size(), 2U);
  constexpr Utc_time noon = std::chrono::sys_days(2024y / 2 / 1) + 12h;
  EXPECT_THAT(result.fixes[0].utc, Optional(noon + 1s));
  EXPECT_EQ(result.fixes[0].satellites.value().at(0).id, 4U);
  EXPECT_THAT(result.fixes[1].utc, Optional(noon + 4s));
  EXPECT_EQ(result.fixes[1].satellites.value().at(0).id, 5U);
}

TEST(Nmea, a_pause_within_an_instant_does_not_end_it) {
  Reader reader;
  std::vector<Fix> fixes;
  const auto sink = [&](const Fix& fix) { fixes.push_back(fix); };
  const auto feed = [&](const std::string& body) {
    const auto line = sentence(body);
    reader.feed(std::as_bytes(std::span(line)), sink);
  };
  const auto counts = [&](Silence silence, std::size_t count) {
    reader.pause(silence, sink);
    return fixes.size() == count;
  };
  const std::string position = ",4807.038,N,01131.000,E";
  feed("GPRMC,000001,A" + position + ",1.0,2.0,010124,,");
  EXPECT_TRUE(counts(Silence::brief, 1));
  EXPECT_TRUE(counts(Silence::lasting, 1)) << "a position is sent once";
  feed("GPGGA,000001" + position + ",1,08,0.9,,,,,,");
  EXPECT_TRUE(counts(Silence::lasting, 1));
  feed("GPGSA,A,3,04,,,,,,,,,,,,2.5,1.3,2.1");
  feed("GPGSV,1,1,01,04,40,083,46");
  EXPECT_TRUE(counts(Silence::brief, 2));
  EXPECT_TRUE(fixes[1].supplement && fixes[1].valid && fixes[1].satellites->at(0).in_use);
  feed("GPRMC,000002,A" + position + ",1.0,2.0,010124,,");
  EXPECT_TRUE(counts(Silence::brief, 2)) << "the last instant had a GGA too";
  feed("GPGGA,000002" + position + ",1,08,0.9,545.4,M,,,,");
  EXPECT_TRUE(counts(Silence::brief, 3));
  EXPECT_TRUE(!fixes[2].supplement && fixes[2].speed && fixes[2].altitude_msl);
  feed("GPRMC,000003,A" + position + ",1.0,2.0,010124,,");
  EXPECT_TRUE(counts(Silence::brief, 3) && counts(Silence::lasting, 4));
  feed("GPRMC,000004,V,,,,,,,010124,,");
  EXPECT_TRUE(counts(Silence::lasting, 5));
  feed("GPRMC,000004,V,,,,,,,010124,,");
  EXPECT_TRUE(counts(Silence::lasting, 6)) << "the clock of a receiver without a fix may stand";
}

TEST(Nmea, satellites_are_numbered_within_their_system_and_found_again_in_every_form) {
  using enum Gnss_system;
  struct Case {
    const char* view;
    Gnss_system system;
    unsigned id;
    const char* active;
  };
  for (const auto& [view, system, id, active] : std::initializer_list<Case>{
           {"GPGSV,1,1,01,44,40,083,46", sbas, 131, "GPGSA,A,3,44,,,,,,,,,,,,2.5,1.3,2.1"},
           {"GPGSV,1,1,01,131,40,083,46", sbas, 131, "GNGSA,A,3,131,,,,,,,,,,,,2.5,1.3,2.1,1"},
           {"GLGSV,1,1,01,65,40,083,46", glonass, 1, "GNGSA,A,3,65,,,,,,,,,,,,2.5,1.3,2.1"},
           {"GLGSV,1,1,01,08,40,083,46,1", glonass, 8, "GNGSA,A,3,72,,,,,,,,,,,,2.5,1.3,2.1,2"},
           {"GBGSV,1,1,01,08,40,083,46,1", beidou, 8, "GBGSA,A,3,208,,,,,,,,,,,,2.5,1.3,2.1,4"},
           {"BDGSV,1,1,01,208,40,083,46", beidou, 8, "GNGSA,A,3,08,,,,,,,,,,,,2.5,1.3,2.1,4"},
           {"PQGSV,1,1,01,08,40,083,46,0,4", beidou, 8, "PQGSA,A,3,08,,,,,,,,,,,,2.5,1.3,2.1,4"},
           {"PQGSV,1,1,01,193,40,083,46", qzss, 193, "GQGSA,A,3,01,,,,,,,,,,,,2.5,1.3,2.1,5"},
           {"GNGSV,1,1,01,308,40,083,46", galileo, 8, "GAGSA,A,3,08,,,,,,,,,,,,2.5,1.3,2.1,1.9,3"},
           {"GAGSV,1,1,01,08,40.0,083,46.0,7", galileo, 8,
            "GAGSA,A,3,108,,,,,,,,,,,,2.5,1.3,2.1,1.9"},
           {"GIGSV,1,1,01,05,40,083,46", navic, 5, "GNGSA,A,3,05,,,,,,,,,,,,2.5,1.3,2.1,6"},
           {"IMGSV,1,1,01,05,40,083,46", unknown, 5, "IMGSA,A,3,05,2.5,1.3,2.1"},
       }) {
    const auto result =
        read(sentence("GPGGA,000001,,,,,0,,,,,,,,") + sentence(view) + sentence(active));
    const auto& fix = result.fixes.at(0);
    EXPECT_EQ(result.counters.errors(), 0U) << view;
    ASSERT_EQ(fix.satellites.value_or(std::vector<Satellite>{}).size(), 1U) << view;
    EXPECT_EQ(fix.satellites->at(0),
              (Satellite{system, static_cast<std::uint16_t>(id), 40, 83, 46, true}))
        << active;
    EXPECT_THAT(fix.vdop, Optional(2.1)) << active;
  }
}

TEST(Nmea, a_group_of_satellites_may_hold_several_signals) {
  const auto result = read(sentence("GPGGA,000001,,,,,0,,,,,,,,") +
                           sentence("GPGSV,2,1,05,04,40,083,46,05,40,083,40,06,,,,07,,,,1") +
                           sentence("GPGSV,2,2,05,04,40,083,48,8"));
  EXPECT_EQ(result.counters.errors(), 0U);
  EXPECT_EQ(result.fixes.at(0).satellites_in_view, 4U);
  EXPECT_EQ(result.fixes.at(0).satellites.value().at(0).signal, 48);
}

TEST(Nmea, a_device_that_passes_positions_on_counts_while_no_receiver_speaks) {
  const auto at = [](const std::string& talker, int second) {
    return sentence(talker + "GGA,0000" + std::to_string(second) +
                    ",4807.038,N,01131.000,E,1,08,0.9,,,,,,");
  };
  for (const char* talker : {"IN", "EC", "II"})
    EXPECT_TRUE(read(at(talker, 10)).fixes.at(0).valid) << talker;
  const auto both = read(at("II", 10) + at("GP", 11) + at("II", 12) + at("GP", 13) + at("II", 14));
  EXPECT_EQ(both.fixes.size(), 3U);
  std::string gone = at("GP", 11);
  for (int second = 0; second < 100; ++second)
    gone += at("II", 10 + second % 50);
  EXPECT_EQ(read(gone).fixes.size(), 1U + 36U);
  EXPECT_TRUE(read(sentence("PGRMC,000001,A,4807.038,N,01131.000,E,,,,,")).fixes.empty())
      << "a maker's own sentence, not RMC";
}

TEST(Nmea, accuracy_corrections_and_attitude_join_the_instant) {
  const auto result = read(sentence("GNGST,120001,9,3.0,4.0,10,0.3,0.4,0.7") +
                           sentence("GNGGA,120001,4807.038,N,01131.000,E,2,08,0.9,,,,,1.5,0101") +
                           sentence("GNGST,120002,9,3.0,4.0,10,,,") + sentence("HEHDT,123.4,T") +
                           sentence("PASHR,120001.00,124.0,T,-1.50,+2.25,+0.00,0.1,0.1,0.2,1,0") +
                           sentence("PASHR,POS,0,08,120001.00") + sentence("GNTHS,9.0,V") +
                           sentence("GNGGA,120002,4807.038,N,01131.000,E,1,08,0.9,,,,,0.0,0000"));
  EXPECT_EQ(result.counters.errors(), 0U);
  ASSERT_EQ(result.fixes.size(), 2U);
  const Fix& fix = result.fixes[0];
  EXPECT_THAT(fix.accuracy_horizontal, Optional(DoubleEq(0.5)));
  EXPECT_THAT(fix.accuracy_vertical, Optional(0.7));
  EXPECT_THAT(fix.age_of_corrections, Optional(1.5));
  EXPECT_THAT(fix.heading, Optional(124.0));
  EXPECT_THAT(fix.heading_accuracy, Optional(0.2));
  EXPECT_THAT(fix.roll, Optional(-1.5));
  EXPECT_THAT(fix.pitch, Optional(2.25));
  EXPECT_THAT(result.fixes[1].accuracy_horizontal, Optional(DoubleEq(5.0)));
  EXPECT_FALSE(result.fixes[1].age_of_corrections) << "no corrections in use";
  EXPECT_FALSE(result.fixes[1].heading) << "of the instant before";
}

TEST(Nmea, spaces_and_a_lost_line_end_cost_no_sentence) {
  auto first = sentence("GPGGA,000001,4807.038,N,01131.000,E,1, 8,0.9, 545.4,M,,,,");
  first.resize(first.size() - 2);
  auto second = sentence("GPGGA,000002,4807.038,N,01131.000,E,1,08,0.9,,,,,,");
  second.insert(second.size() - 2, " ");
  const auto result = read(first + second);
  EXPECT_EQ(result.counters.errors(), 0U);
  ASSERT_EQ(result.fixes.size(), 2U);
  EXPECT_THAT(result.fixes[0].altitude_msl, Optional(545.4));
  EXPECT_EQ(result.fixes[0].satellites_in_use, 8U);
}

TEST(Nmea, the_date_is_carried_on_and_turns_at_midnight) {
  const auto result = read(sentence("GPGGA,235958.0,4807.038,N,01131.000,E,1,08,0.9,,,,,,") +
                           sentence("GPRMC,235959.0,A,4807.038,N,01131.000,E,,,311299,,") +
                           sentence("GPGGA,000000.5,4807.038,N,01131.000,E,1,08,0.9,,,,,,") +
                           sentence("GPGGA,235959.5,4807.038,N,01131.000,E,1,08,0.9,,,,,,") +
                           sentence("GPZDA,000001.0,01,01,2000,00,00") +
                           sentence("GPGGA,000001.0,4807.038,N,01131.000,E,1,08,0.9,,,,,,"));
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
  for (const auto& numbers :
       std::vector<std::vector<int>>{{2, 3, 4}, {1, 3, 4}, {1, 2, 4}, {1, 2, 1, 2, 3, 4}}) {
    std::string text = sentence("GPGGA,000001,,,,,0,,,,,,,,");
    for (const int number : numbers)
      text += part(number);
    const auto result = read(text);
    EXPECT_EQ(result.counters.incomplete_groups, 1U);
    EXPECT_EQ(result.fixes.at(0).satellites_in_view.has_value(), numbers.size() > 4);
  }
}

TEST(Nmea, a_sentence_that_its_neighbours_contradict_is_counted_and_adds_nothing) {
  struct Case {
    std::string sentences;
    Sentence_type contradicted;
  };
  const auto gga = sentence("GPGGA,120000,4807.038,N,01131.000,E,1,08,0.9,545.4,M,,,,");
  const auto rmc = sentence("GPRMC,120000,A,4807.038,N,01131.000,E,20.0,90.0,010224,,,A");
  for (const auto& [sentences, contradicted] : std::initializer_list<Case>{
           {gga + rmc + sentence("GPGLL,4807.138,N,01131.000,E,120000,A"), Sentence_type::gll},
           {sentence("GPGGA,120000,4807.038,S,01131.000,E,1,08,0.9,9.0,M,,,,") + rmc +
                sentence("GPGLL,4807.040,N,01131.000,E,120000,A"),
            Sentence_type::gga},
           {gga + sentence("GPRMC,120000,A,4807.038,N,01132.000,E,99.0,10.0,010224,,,A"),
            Sentence_type::rmc},
           {gga + rmc + sentence("GPVTG,90.0,T,,M,40.0,N,,K,A"), Sentence_type::vtg},
           {gga + rmc + sentence("GPVTG,270.0,T,,M,20.0,N,,K,A"), Sentence_type::vtg},
           {gga + rmc + sentence("GPZDA,120000,02,02,2024,00,00"), Sentence_type::zda},
           {gga + rmc + sentence("GPGSA,A,1,04,,,,,,,,,,,,99.0,99.0,99.0"), Sentence_type::gsa},
       }) {
    auto result = read(sentences);
    EXPECT_EQ(result.counters.contradictions, 1U) << sentences;
    EXPECT_EQ(result.counters.of(contradicted).ignored, 1U) << sentences;
    const auto& fix = result.fixes.at(0);
    EXPECT_TRUE(fix.valid);
    EXPECT_NEAR(fix.position->latitude, 48 + 7.04 / 60, 1e-4) << sentences;
    EXPECT_FALSE(fix.speed && *fix.speed > 11) << sentences;
    EXPECT_FALSE(fix.altitude_msl == 9.0 || fix.pdop);
  }
  const auto rounded = read(gga + rmc + sentence("GPGLL,4807.04,N,01131.00,E,120000,A") +
                            sentence("GPVTG,91.0,T,,M,,N,37,K,A"));
  EXPECT_EQ(rounded.counters.contradictions, 0U);
}

TEST(Nmea, accuracies_and_the_antenna_come_from_sentences_of_their_own) {
  const auto result = read(
      sentence(
          "PUBX,00,120000.00,4807.03800,N,01131.00000,E,592.3,D3,2.1,3.2,36.0,90.0,-0.5,2.0,0.9,"
          "1.5,0.7,12,0,0") +
      sentence("GNGBS,120001.00,3.0,4.0,5.0,,,,") + sentence("GNTXT,01,01,02,ANTSTATUS=SHORT") +
      sentence("GNGLL,4807.038,N,01131.000,E,120001,A"));
  ASSERT_EQ(result.fixes.size(), 2U);
  EXPECT_EQ(result.counters.errors() + result.counters.other_sentences, 0U);
  const auto& fix = result.fixes[0];
  EXPECT_TRUE(fix.valid && fix.dimension == Fix_dimension::three);
  EXPECT_EQ(fix.quality, Fix_quality::differential);
  EXPECT_THAT(fix.altitude_wgs84(), Optional(592.3));
  EXPECT_THAT(fix.accuracy_horizontal, Optional(2.1));
  EXPECT_THAT(fix.climb, Optional(0.5));
  EXPECT_THAT(fix.speed, Optional(DoubleEq(10)));
  EXPECT_EQ(fix.satellites_in_use, 12U);
  EXPECT_THAT(result.fixes[1].accuracy_horizontal, Optional(DoubleEq(5)));
  EXPECT_EQ(result.fixes[1].antenna, Antenna::short_circuit);
  const auto none =
      read(sentence("PUBX,00,120000.00,0000.00000,N,00000.00000,E,0.0,NF,9,9,0,0,0,,9,9,9,0,0,0"));
  EXPECT_FALSE(none.fixes.at(0).valid || none.fixes.at(0).position);
}

}  // namespace
}  // namespace nmea
