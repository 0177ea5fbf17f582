/// Recordings of real receivers: how much of them is understood. That what comes out gives back the
/// digits that went in is replay_test.py's to see.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <tuple>

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

TEST(Recordings, are_understood_sentence_by_sentence) {
  for (const auto& recording : {Recording{"garmin25lp.log", 20, 10, 106, 0, 0},
                                Recording{"haicom-305N.log", 74, 68, 325, 0, 1},
                                Recording{"nmea-rtk.log", 122, 122, 244, 0, 0},
                                Recording{"quectel-eg25-g.log", 60, 23, 715, 146, 0},
                                Recording{"ublox-8.log", 72, 72, 1008, 0, 1}}) {
    const auto path = std::filesystem::path(POS_RECORDINGS) / recording.name;
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
          << recording.name << " " << time;
    }
    const auto& counters = reader.counters();
    EXPECT_EQ(
        std::tuple(count, valid, counters.sentences, counters.other_sentences, counters.errors()),
        std::tuple(recording.fixes, recording.valid, recording.sentences, recording.other,
                   recording.errors))
        << recording.name;
  }
}

}  // namespace
}  // namespace nmea
