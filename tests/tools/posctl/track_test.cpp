#include <gmock/gmock.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>

#include "tools/nmea/sentence.h"
#include "tools/posctl/track/sentences.h"
#include "tools/posctl/track/track_file.h"

namespace {

using namespace posctl;
using namespace std::chrono_literals;

/// 2023-11-14T22:13:20.25Z.
constexpr std::chrono::nanoseconds utc = 1'700'000'000'250ms;

Json record_at(double latitude, double longitude) {
  return {{"LAT", latitude}, {"LON", longitude}};
}

track::Point point_at(double latitude, double longitude) {
  auto point = *track::point_of(record_at(latitude, longitude), 0ns);
  point.utc = utc;
  return point;
}

std::vector<nmea::Sentence> read_back(const std::string& text) {
  std::vector<nmea::Sentence> sentences;
  nmea::Counters counters;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_EQ(line.back(), '\r');
    EXPECT_LE(line.size(), 81U);
    if (auto one = nmea::parse(std::string_view(line).substr(1, line.size() - 2), counters))
      sentences.push_back(*one);
  }
  EXPECT_EQ(counters.errors(), 0U) << text;
  return sentences;
}

/// That gpsd reads the time of day, place, speed and course is for export_test.py to see.
TEST(Sentences, say_what_the_point_has) {
  auto point = point_at(-48.1371541234, 11.5);
  point.altitude_msl = 519.5;
  point.altitude_wgs84 = 566.1;
  point.accuracy_horizontal = 2;
  point.accuracy_vertical = 3;
  point.correction_age = 1.5;
  const auto read = read_back(track::sentences_of(point));
  ASSERT_EQ(read.size(), 5U);
  EXPECT_EQ(std::get<nmea::Navigation>(read[0].content).date, std::chrono::November / 14 / 2023);
  const auto& gga = std::get<nmea::Navigation>(read[1].content);
  EXPECT_EQ(gga.quality, nmea::Fix_quality::differential);
  EXPECT_NEAR(*gga.geoid_separation, 46.6, 1e-9);
  EXPECT_EQ(gga.age_of_corrections, 1.5);
  EXPECT_EQ(std::get<nmea::Active_satellites>(read[3].content).dimension,
            nmea::Fix_dimension::three);
  EXPECT_NEAR(*std::get<nmea::Accuracy>(read[4].content).horizontal, 2, 0.001);
  EXPECT_EQ(std::get<nmea::Accuracy>(read[4].content).vertical, 3);

  const auto without = read_back(track::sentences_without_position(utc));
  EXPECT_FALSE(*std::get<nmea::Navigation>(without[0].content).valid);
  EXPECT_EQ(std::get<nmea::Navigation>(without[1].content).quality, nmea::Fix_quality::none);
}

TEST(Sentences, keep_coordinates_everywhere_on_the_globe) {
  for (const auto& [latitude, longitude] : {std::pair{0.0, 0.0},
                                            {90.0, -180.0},
                                            {-1e-9, 1e-9},
                                            {-0.0, 180.0},
                                            {9.99999999999, -99.9999999999},
                                            {46.99999999999, 7.0000000001},
                                            {-33.856784, 151.215297}}) {
    const auto read = read_back(track::sentences_of(point_at(latitude, longitude)));
    for (const std::size_t place : {0U, 1U}) {
      const auto position = *std::get<nmea::Navigation>(read[place].content).position;
      EXPECT_NEAR(position.latitude, latitude, 1e-8);
      EXPECT_NEAR(position.longitude, longitude, 1e-8);
      EXPECT_EQ(std::signbit(position.latitude), latitude < -1e-8) << "zero is north";
    }
  }
}

TEST(Directions, are_rounded_before_they_wrap) {
  for (const auto& [degrees, nmea, gpx] : {std::tuple{359.996, "0.00", "359.996"},
                                           {359.994, "359.99", "359.994"},
                                           {359.999998, "0.00", "0"},
                                           {360.0, "0.00", "0"},
                                           {-0.001, "0.00", "359.999"},
                                           {-90.0, "270.00", "270"}}) {
    auto point = point_at(48, 11);
    point.course = point.heading = degrees;
    const auto sentences = track::sentences_of(point);
    EXPECT_THAT(sentences, testing::HasSubstr(std::string("VTG,") + nmea + ",T"));
    EXPECT_THAT(sentences, testing::HasSubstr(std::string(",,") + nmea + ",141123,"));
    EXPECT_THAT(track::Track_text(track::Format::gpx).next(point, {}),
                testing::HasSubstr(std::string("<tp:course>") + gpx + "</tp:course><tp:bearing>" +
                                   gpx + "<"));
  }
}

TEST(Point, has_only_what_is_physical) {
  Json record = record_at(48, 11);
  record.update({{"LAT_valueType", "PhysicalValue"},
                 {"speed2D", 3.0},
                 {"speed2D_valueType", "Error"},
                 {"yawAngle", nullptr},
                 {"preciseLocalTimeSeconds", 1037},
                 {"preciseLocalTimeNanoseconds", 5}});
  const auto point = track::point_of(record, 37s);
  EXPECT_EQ(point->utc, 1000s + 5ns);
  EXPECT_FALSE(point->speed || point->heading);
  record["LAT_valueType"] = "LogicalValue";
  EXPECT_FALSE(track::point_of(record, 0s));
  EXPECT_FALSE(track::point_of(record_at(90.5, 0), 0s));
}

TEST(Track_file, stays_complete_when_the_medium_is_full) {
  const auto path = std::filesystem::temp_directory_path() / ("track-" + std::to_string(getpid()));
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit small{.rlim_cur = 1000, .rlim_max = before.rlim_max};
  track::Track_file file(path, track::Format::geojson);
  int written = 0;
  setrlimit(RLIMIT_FSIZE, &small);
  EXPECT_THROW(for (;; ++written) file.add(point_at(48, 11 + written), record_at(48, 11 + written)),
               std::system_error);
  setrlimit(RLIMIT_FSIZE, &before);
  std::ifstream stream(path);
  const Json document = Json::parse(stream);
  EXPECT_GT(written, 3);
  EXPECT_EQ(document["features"].size(), static_cast<std::size_t>(written));
  std::filesystem::remove(path);
}

}  // namespace
