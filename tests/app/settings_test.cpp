#include "app/settings.h"

#include <gtest/gtest.h>

#include <tuple>

#include "tests/support/capture.h"
#include "tests/support/store.h"

namespace {

using ara::per::KvsType;
using Values = std::tuple<bool, bool, bool, bool, std::uint32_t, bool>;

/// The settings of a store with these values, written by an earlier process.
Values read_with(const std::vector<KvsType>& values) {
  constexpr const char* keys[] = {"recievedGNSSDataLogging",
                                  "ignoreGNSSTimestamps",
                                  "alwaysSendAllValidPositions",
                                  "useGNSSDR",
                                  "mmNewPositionCalculationIntervalMS",
                                  "timeClientEnabled"};
  Store store;
  std::vector<std::pair<std::string, KvsType>> entries;
  for (std::size_t i = 0; i < values.size(); ++i)
    entries.emplace_back(keys[i], values[i]);
  store.write(entries);
  const test::Capture log;
  Persistency persistency = store.open();
  const Settings read = read_settings(persistency);
  return {read.recievedGNSSDataLogging,
          read.ignoreGNSSTimestamps,
          read.alwaysSendAllValidPositions,
          read.useGNSSDR,
          read.mmNewPositionCalculationIntervalMS,
          read.timeClientEnabled};
}

TEST(Settings, stored_values_replace_the_defaults_and_those_of_another_type_count_as_missing) {
  const Values defaults{true, true, true, true, 1000, false};
  const KvsType no(false);
  const KvsType yes(true);
  EXPECT_EQ(read_with({}), defaults);
  EXPECT_EQ(read_with({no, yes, no, yes, KvsType(std::uint32_t{4294967295u}), no}),
            Values(false, true, false, true, 4294967295u, false));
  EXPECT_EQ(read_with({yes, no, yes, no, KvsType(std::uint32_t{0}), yes}),
            Values(true, false, true, false, 0, true));
  EXPECT_EQ(
      read_with({KvsType(std::uint32_t{0}), KvsType("false"), KvsType(0.0),
                 KvsType(std::uint8_t{0}), KvsType(std::int32_t{5}), KvsType(std::int32_t{1})}),
      defaults);
  EXPECT_EQ(read_with({yes, yes, yes, yes, KvsType(std::uint16_t{5})}), defaults)
      << "a smaller unsigned one too";
}

}  // namespace
