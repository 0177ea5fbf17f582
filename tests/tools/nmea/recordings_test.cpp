/// Recordings of real receivers: how much of them is understood. That what comes out gives back the
/// digits that went in is replay_test.py's to see.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

#include "tools/nmea/Reader.h"

namespace nmea {
namespace {

struct Recording {
  const char* name;
  std::size_t fixes;
  std::size_t valid;
  std::uint64_t sentences;
  std::uint64_t other;
  std::uint64_t errors;
};

class Recordings : public testing::TestWithParam<Recording> {};

TEST_P(Recordings, are_understood_sentence_by_sentence) {
  const auto path = std::filesystem::path(POS_RECORDINGS) / GetParam().name;
  std::ifstream file(path, std::ios::binary);
  if (!file) GTEST_SKIP() << "skipped: " << path << " is not there";
  const std::string content{std::istreambuf_iterator<char>(file), {}};

  Reader reader;
  std::size_t count = 0;
  std::map<std::int64_t, Fix> fixes;  // by milliseconds of the day
  const auto sink = [&](const Fix& fix) {
    ++count;
    if (fix.time_of_day) fixes[fix.time_of_day->count() / 1'000'000] = fix;
  };
  reader.feed(std::as_bytes(std::span(content)), sink);
  reader.finish(sink);

  std::size_t valid = 0;
  for (const auto& [time, fix] : fixes) {
    valid += fix.valid ? 1 : 0;
    EXPECT_TRUE(!fix.valid || (fix.position && fix.utc && fix.speed && fix.altitude_wgs84()))
        << time;
  }
  EXPECT_EQ(count, GetParam().fixes);
  EXPECT_EQ(valid, GetParam().valid);
  EXPECT_EQ(reader.counters().sentences, GetParam().sentences);
  EXPECT_EQ(reader.counters().other_sentences, GetParam().other);
  EXPECT_EQ(reader.counters().errors(), GetParam().errors);
}

INSTANTIATE_TEST_SUITE_P(All,
                         Recordings,
                         testing::Values(Recording{"garmin25lp.log", 20, 10, 106, 0, 0},
                                         Recording{"haicom-305N.log", 74, 68, 325, 0, 1},
                                         Recording{"nmea-rtk.log", 122, 122, 244, 0, 0},
                                         Recording{"quectel-eg25-g.log", 60, 23, 715, 146, 0},
                                         Recording{"ublox-8.log", 72, 72, 1008, 0, 1}),
                         [](const auto& instance) {
                           std::string name = instance.param.name;
                           for (char& c : name)
                             c = c == '-' || c == '.' ? '_' : c;
                           return name;
                         });

}  // namespace
}  // namespace nmea
