/// Recordings of real receivers: what comes out must give back the digits that went in.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "tools/nmea/Reader.h"

namespace nmea {
namespace {

std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> fields{""};
  for (const char c : text) {
    if (c == ',') {
      fields.emplace_back();
    } else {
      fields.back() += c;
    }
  }
  return fields;
}

/// `value` with as many decimals as `model`, zeros before the point included.
std::string printed_like(const std::string& model, double value) {
  const std::size_t point = model.find('.');
  const int decimals = point == std::string::npos ? 0 : static_cast<int>(model.size() - point - 1);
  char text[64];
  std::snprintf(text, sizeof text, "%0*.*f", static_cast<int>(model.size()), decimals, value);
  return text;
}

std::string printed_angle_like(const std::string& model, double degrees) {
  const double whole = std::floor(std::abs(degrees) + 1e-12);
  return printed_like(model, whole * 100 + (std::abs(degrees) - whole) * 60);
}

struct Recording {
  const char* name;
  std::size_t fixes;
  std::size_t valid;
  std::uint64_t sentences;
  std::uint64_t other;
  std::uint64_t errors;
};

class Recordings : public testing::TestWithParam<Recording> {};

TEST_P(Recordings, every_fix_says_what_its_sentences_say) {
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

  const auto fix_of = [&](const std::string& time) -> const Fix& {
    const auto digits = static_cast<std::int64_t>(std::lround(std::stod(time) * 1000));
    const auto seconds = digits / 1000;
    return fixes.at((seconds / 10000 * 3600 + seconds / 100 % 100 * 60 + seconds % 100) * 1000 +
                    digits % 1000);
  };
  const std::regex pattern("\\$(G[NP](?:GGA|RMC),[ -~]*?)\\*[0-9A-F]{2}[\r\n]");
  std::size_t compared = 0;
  for (auto match = std::sregex_iterator(content.begin(), content.end(), pattern);
       match != std::sregex_iterator(); ++match) {
    const auto fields = split((*match)[1]);
    if (fields[1].empty()) continue;
    const Fix& fix = fix_of(fields[1]);
    const std::size_t at = fields[0].ends_with("GGA") ? 2 : 3;
    ASSERT_TRUE(fix.position);
    EXPECT_EQ(printed_angle_like(fields[at], fix.position->latitude), fields[at]);
    EXPECT_EQ(printed_angle_like(fields[at + 2], fix.position->longitude), fields[at + 2]);
    EXPECT_EQ(fix.position->latitude < 0, fields[at + 1] == "S");
    EXPECT_EQ(fix.position->longitude < 0, fields[at + 3] == "W");
    if (at == 2) {
      // In single precision, as they travel.
      if (!fields[9].empty()) {
        EXPECT_EQ(printed_like(fields[9], static_cast<float>(*fix.altitude_msl)), fields[9]);
      }
    } else {
      if (!fields[7].empty()) {
        EXPECT_EQ(printed_like(fields[7], static_cast<float>(*fix.speed) * 3600.0 / 1852),
                  fields[7]);
      }
      if (!fields[8].empty()) {
        EXPECT_EQ(printed_like(fields[8], static_cast<float>(*fix.course)), fields[8]);
      }
      EXPECT_EQ(fix.valid, fields[2] == "A");
      ASSERT_TRUE(fix.utc);
      const std::chrono::year_month_day date{std::chrono::floor<std::chrono::days>(*fix.utc)};
      char text[16];
      std::snprintf(text, sizeof text, "%02u%02u%02d", static_cast<unsigned>(date.day()),
                    static_cast<unsigned>(date.month()), static_cast<int>(date.year()) % 100);
      EXPECT_EQ(text, fields[9]);
    }
    ++compared;
  }
  EXPECT_GT(compared, 30U);
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
