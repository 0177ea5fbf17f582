#include "app/Settings.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "ara/log/capture.h"

namespace {

namespace fs = std::filesystem;
using ara::per::KvsType;

class SettingsTest : public testing::Test {
 public:
  SettingsTest() {
    char pattern[] = "/tmp/settings_test_XXXXXX";
    folder_ = mkdtemp(pattern);
    setenv("POS_STORAGE_DIR", folder_.c_str(), 1);
    unsetenv("POS_INITDATA_DIR");
  }
  ~SettingsTest() override { fs::remove_all(folder_); }

 protected:
  /// Reads the settings from a store with these entries, written by an earlier process.
  Settings readWith(const std::vector<std::pair<std::string, KvsType>>& entries) {
    {
      ara::per::KeyValueStorage store("POS_Key_Value_Port");
      for (const auto& [key, value] : entries)
        store.SetValue(key, value);
      store.SyncToStorage();
    }
    persistency_.emplace("POS_Key_Value_Port",
                         ara::log::CreateLogger("DBAC", "Persistency access"));
    log_.Clear();
    return readSettings(*persistency_);
  }

  static void expectDefaults(const Settings& settings) {
    EXPECT_TRUE(settings.recievedGNSSDataLogging);
    EXPECT_TRUE(settings.ignoreGNSSTimestamps);
    EXPECT_TRUE(settings.alwaysSendAllValidPositions);
    EXPECT_TRUE(settings.useGNSSDR);
    EXPECT_EQ(settings.mmNewPositionCalculationIntervalMS, 1000u);
    EXPECT_FALSE(settings.timeClientEnabled);
  }

  fs::path folder_;
  std::optional<Persistency> persistency_;
  ara::log::Capture log_;
};

constexpr const char* kKeys[] = {
    "recievedGNSSDataLogging",
    "ignoreGNSSTimestamps",
    "alwaysSendAllValidPositions",
    "useGNSSDR",
    "mmNewPositionCalculationIntervalMS",
    "timeClientEnabled",
};

TEST_F(SettingsTest, an_empty_store_gives_the_defaults) {
  const Settings settings = readWith({});
  expectDefaults(settings);
  EXPECT_EQ(&settings.persistency, &*persistency_);
}

TEST_F(SettingsTest, stored_values_replace_the_defaults) {
  const Settings settings = readWith({
      {"recievedGNSSDataLogging", KvsType(false)},
      {"ignoreGNSSTimestamps", KvsType(false)},
      {"alwaysSendAllValidPositions", KvsType(false)},
      {"useGNSSDR", KvsType(false)},
      {"mmNewPositionCalculationIntervalMS", KvsType(std::uint32_t{4294967295u})},
      {"timeClientEnabled", KvsType(true)},
  });
  EXPECT_FALSE(settings.recievedGNSSDataLogging);
  EXPECT_FALSE(settings.ignoreGNSSTimestamps);
  EXPECT_FALSE(settings.alwaysSendAllValidPositions);
  EXPECT_FALSE(settings.useGNSSDR);
  EXPECT_EQ(settings.mmNewPositionCalculationIntervalMS, 4294967295u);
  EXPECT_TRUE(settings.timeClientEnabled);
}

TEST_F(SettingsTest, a_value_of_another_type_counts_as_missing) {
  const Settings settings = readWith({
      {"recievedGNSSDataLogging", KvsType(std::uint32_t{0})},
      {"ignoreGNSSTimestamps", KvsType("false")},
      {"alwaysSendAllValidPositions", KvsType(0.0)},
      {"useGNSSDR", KvsType(std::uint8_t{0})},
      {"mmNewPositionCalculationIntervalMS", KvsType(std::int32_t{5})},
      {"timeClientEnabled", KvsType(std::int32_t{1})},
  });
  expectDefaults(settings);
  for (const char* key : kKeys)
    EXPECT_TRUE(log_.Has("No such entry for  " + std::string(key)));
}

TEST_F(SettingsTest, an_interval_of_a_smaller_unsigned_type_counts_as_missing) {
  const Settings settings =
      readWith({{"mmNewPositionCalculationIntervalMS", KvsType(std::uint16_t{5})}});
  expectDefaults(settings);
}

}  // namespace
