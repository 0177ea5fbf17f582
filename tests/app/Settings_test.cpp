#include "app/Settings.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <tuple>

#include "ara/log/capture.h"
#include "tests/support/Temporary_folder.h"

namespace {

using ara::per::KvsType;
using Values = std::tuple<bool, bool, bool, bool, std::uint32_t, bool>;
const Values kDefaults{true, true, true, true, 1000, false};

/// The settings of a store with these values, written by an earlier process.
Values readWith(const std::vector<KvsType>& values) {
  const Temporary_folder folder;
  setenv("POS_STORAGE_DIR", folder.path().c_str(), 1);
  unsetenv("POS_INITDATA_DIR");
  constexpr const char* kKeys[] = {"recievedGNSSDataLogging",
                                   "ignoreGNSSTimestamps",
                                   "alwaysSendAllValidPositions",
                                   "useGNSSDR",
                                   "mmNewPositionCalculationIntervalMS",
                                   "timeClientEnabled"};
  {
    ara::per::KeyValueStorage store("POS_Key_Value_Port");
    for (std::size_t i = 0; i < values.size(); ++i)
      store.SetValue(kKeys[i], values[i]);
    store.SyncToStorage();
  }
  const ara::log::Capture log;
  Persistency persistency("POS_Key_Value_Port",
                          ara::log::CreateLogger("DBAC", "Persistency access"));
  const Settings read = readSettings(persistency);
  EXPECT_EQ(&read.persistency, &persistency);
  return {read.recievedGNSSDataLogging,
          read.ignoreGNSSTimestamps,
          read.alwaysSendAllValidPositions,
          read.useGNSSDR,
          read.mmNewPositionCalculationIntervalMS,
          read.timeClientEnabled};
}

TEST(Settings, stored_values_replace_the_defaults) {
  EXPECT_EQ(readWith({}), kDefaults);
  EXPECT_EQ(readWith({KvsType(false), KvsType(false), KvsType(false), KvsType(false),
                      KvsType(std::uint32_t{4294967295u}), KvsType(true)}),
            Values(false, false, false, false, 4294967295u, true));
}

TEST(Settings, a_value_of_another_type_counts_as_missing) {
  EXPECT_EQ(
      readWith({KvsType(std::uint32_t{0}), KvsType("false"), KvsType(0.0), KvsType(std::uint8_t{0}),
                KvsType(std::int32_t{5}), KvsType(std::int32_t{1})}),
      kDefaults);
  EXPECT_EQ(readWith({KvsType(true), KvsType(true), KvsType(true), KvsType(true),
                      KvsType(std::uint16_t{5})}),
            kDefaults)
      << "a smaller unsigned one too";
}

}  // namespace
