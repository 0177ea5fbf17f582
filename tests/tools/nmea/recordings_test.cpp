/// Every sentence of the recordings of real receivers is understood.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "tools/nmea/reader.h"

namespace nmea {
namespace {

TEST(Recordings, are_understood_sentence_by_sentence) {
  if (!std::filesystem::exists(POS_RECORDINGS)) GTEST_SKIP() << POS_RECORDINGS << " is not there";
  struct Recording {
    const char* name;
    std::size_t fixes;
    std::uint64_t sentences;
    std::uint64_t other;
    std::uint64_t errors;
  };
  for (const auto& recording :
       {Recording{"garmin25lp.log", 20, 106, 0, 0}, Recording{"haicom-305N.log", 74, 325, 0, 1},
        Recording{"nmea-rtk.log", 122, 244, 0, 0}, Recording{"quectel-eg25-g.log", 60, 861, 0, 0},
        Recording{"ublox-8.log", 72, 1008, 0, 1}}) {
    const auto path = std::filesystem::path(POS_RECORDINGS) / recording.name;
    std::ifstream file(path, std::ios::binary);
    ASSERT_TRUE(file) << path << " is not there";
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    Reader reader;
    std::size_t fixes = 0;
    const auto count = [&](const Fix&) { ++fixes; };
    reader.feed(std::as_bytes(std::span(content)), count);
    reader.finish(count);
    const auto& counters = reader.counters();
    EXPECT_EQ(fixes, recording.fixes) << recording.name;
    EXPECT_EQ(counters.sentences, recording.sentences) << recording.name;
    EXPECT_EQ(counters.other_sentences, recording.other) << recording.name;
    EXPECT_EQ(counters.errors(), recording.errors) << recording.name;
  }
}

}  // namespace
}  // namespace nmea
