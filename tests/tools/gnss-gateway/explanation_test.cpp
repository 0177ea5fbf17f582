#include "tools/gnss-gateway/explanation.h"

#include <gmock/gmock.h>

namespace gateway {
namespace {

TEST(Explanation, each_type_has_its_counts_and_what_is_never_said_is_named) {
  const std::string stream =
      "$GPGGA,120000,4807.038,N,01131.000,E,1,08,0.9,545.4,M,,,,*11\r\n"
      "$GPGGA,120000,4807.038,N,01131.000,E,1,08,0.9,545.4,M,,,,*11\r\n"  // a duplicate
      "$GPGLL,4807.138,N,01131.000,E,120000,A*2A\r\n"                     // a contradiction
      "$GPGLL,4807.138,N,01131.000,E,120000,A*2B\r\n"                     // a wrong checksum
      "$GPHDT,361.0,T*31\r\n"                                             // no direction
      "$PGRMZ,246,f,3*1B\r\n";
  Explanation explanation;
  explanation.feed(std::as_bytes(std::span(stream)));
  explanation.finish();
  const auto json = explanation.json();
  const auto counts = [&](const char* type) {
    const auto& row = json["sentences"][type];
    return std::vector<int>{row["used"], row["ignored"], row["broken"]};
  };
  EXPECT_EQ(json["sentences"].size(), 4U) << json;
  EXPECT_EQ(counts("GGA"), (std::vector{1, 1, 0}));
  EXPECT_EQ(counts("GLL"), (std::vector{0, 1, 1}));
  EXPECT_EQ(counts("HDT"), (std::vector{0, 0, 1}));
  EXPECT_EQ(counts("PGRMZ"), (std::vector{0, 1, 0}));
  EXPECT_TRUE(json["neverSaid"].contains("date"));
  EXPECT_TRUE(json["neverSaid"].contains("altitudeWGS84"));
  EXPECT_FALSE(json["neverSaid"].contains("hDOP"));
  EXPECT_THAT(explanation.text(), testing::HasSubstr("GLL              0        1       1\n"));
}

}  // namespace
}  // namespace gateway
