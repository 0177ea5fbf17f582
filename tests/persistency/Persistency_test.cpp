#include "persistency/Persistency.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>

#include "ara/log/capture.h"
#include "tests/support/Temporary_folder.h"

namespace {

namespace fs = std::filesystem;
using ara::log::LogLevel;
using ara::per::KvsType;
using testing::ElementsAre;
using testing::StartsWith;
using Bytes = std::vector<std::uint8_t>;

constexpr const char* kPort = "POS_Key_Value_Port";

std::optional<Bytes> read(const Persistency& persistency, const std::string& key) {
  const auto blob = persistency.controlledReadBinaryData(key);
  return blob ? std::optional(*blob) : std::nullopt;
}

class PersistencyTest : public testing::Test {
 public:
  PersistencyTest() {
    setenv("POS_STORAGE_DIR", (folder_ / "store").c_str(), 1);
    unsetenv("POS_INITDATA_DIR");
    fs::create_directory(folder_ / "store");
  }

 protected:
  [[nodiscard]] fs::path file() const { return folder_ / "store" / (std::string(kPort) + ".json"); }
  Persistency open() { return Persistency(kPort, logger_); }

  Temporary_folder folder_;
  ara::log::Logger& logger_ = ara::log::CreateLogger("DBAC", "Persistency access");
  ara::log::Capture log_;
};

TEST_F(PersistencyTest, with_a_broken_storage_file_everything_reads_as_empty) {
  const std::string broken = "{ \"a\": ";
  std::ofstream(file()) << broken;
  Persistency persistency = open();
  EXPECT_FALSE(persistency.gateway().isStorageUsable());
  EXPECT_EQ(persistency.getValue("a").GetStatus(), KvsType::Status::kGeneralError);
  persistency.gateway().setValue("a", KvsType(true));
  EXPECT_FALSE(persistency.gateway().hasKey("a"));
  persistency.remove("a");
  EXPECT_FALSE(persistency.controlledSaveBinaryData({1}, "blob"));
  EXPECT_EQ(read(persistency, "blob"), std::nullopt);

  std::ifstream left(file());
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(left), {}), broken);
}

TEST_F(PersistencyTest, storing_can_be_forbidden_and_allowed_again) {
  Persistency persistency = open();
  EXPECT_TRUE(persistency.gateway().isStorageUsable());
  persistency.gateway().setValue("x", KvsType(std::uint32_t{7}));
  EXPECT_TRUE(persistency.isStoringAllowed());

  persistency.setStoringAllowed(false);
  EXPECT_FALSE(persistency.isStoringAllowed());
  persistency.remove("x");
  EXPECT_TRUE(persistency.gateway().hasKey("x"));
  EXPECT_FALSE(persistency.controlledSaveBinaryData({1, 2}, "blob"));
  EXPECT_FALSE(persistency.gateway().hasKey("blobbeforeRW"));

  persistency.setStoringAllowed(true);
  persistency.remove("x");
  EXPECT_FALSE(persistency.gateway().hasKey("x"));
}

TEST_F(PersistencyTest, a_blob_outlives_the_process) {
  const Bytes blob{0, 255, 10, 13, 34};
  {
    Persistency persistency = open();
    EXPECT_TRUE(persistency.controlledSaveBinaryData(blob, "b"));
    EXPECT_TRUE(persistency.controlledSaveBinaryData({}, "empty"));
  }
  Persistency persistency = open();
  EXPECT_EQ(read(persistency, "b"), blob);
  EXPECT_EQ(read(persistency, "empty"), Bytes());
  EXPECT_EQ(persistency.getValue("emptybeforeRW"), KvsType(std::uint64_t{0}));
  EXPECT_EQ(persistency.getValue("emptyafterRW"), KvsType(std::uint64_t{0}));
}

TEST_F(PersistencyTest, interrupted_writes_and_damaged_blobs_read_as_nothing) {
  Persistency persistency = open();
  auto& store = persistency.gateway();
  EXPECT_EQ(read(persistency, "b"), std::nullopt);
  store.setValue("bbeforeRW", KvsType(std::uint64_t{10}));
  store.setValue("b", KvsType(Bytes(10)));
  EXPECT_EQ(read(persistency, "b"), std::nullopt);
  store.setValue("bafterRW", KvsType(std::uint64_t{12}));
  EXPECT_EQ(read(persistency, "b"), std::nullopt);

  const auto read_with = [&](std::uint64_t size, const KvsType& value) {
    store.setValue("bbeforeRW", KvsType(size));
    store.setValue("bafterRW", KvsType(size));
    store.setValue("b", value);
    log_.Clear();
    return read(persistency, "b");
  };
  EXPECT_EQ(read_with(2, KvsType("no bytes")), std::nullopt);
  EXPECT_EQ(read_with(2, KvsType(Bytes{1, 2, 3})), std::nullopt);
  // Must fail before it becomes an allocation.
  EXPECT_EQ(read_with(std::uint64_t{1} << 40, KvsType(Bytes{1})), std::nullopt);
  EXPECT_THAT(log_.Texts("DBAC"),
              ElementsAre("Got entry bbeforeRW=1099511627776", "Got entry bafterRW=1099511627776",
                          "Unable to extract value for key bsize is 1099511627776",
                          "controlledReadBinaryData failed to load b size beforeRW: 1099511627776 "
                          "size afterRW: 1099511627776"));
  EXPECT_EQ(read_with(3, KvsType(Bytes{1})), Bytes({1, 0, 0}));
}

TEST_F(PersistencyTest, a_save_that_fails_half_way_leaves_no_entry) {
  Persistency persistency = open();
  fs::remove_all(folder_ / "store");
  EXPECT_FALSE(persistency.controlledSaveBinaryData({1}, "b"));
  const auto records = log_.Records();
  ASSERT_EQ(records.size(), 6u);
  EXPECT_EQ(records[1].level, LogLevel::kError);
  EXPECT_THAT(records[1].Text(), StartsWith("Unable to store to DB: "));
  EXPECT_THAT(log_.Texts("DBAC"), ElementsAre("b, controlledSaveBinaryData will store 1 bytes",
                                              records[1].Text(), "controlledSaveBinaryData failed",
                                              "Remove bbeforeRW", "Remove b", "Remove bafterRW"));
  EXPECT_FALSE(persistency.gateway().hasKey("bbeforeRW"));
}

TEST_F(PersistencyTest, the_owner_hears_of_each_save_that_succeeded_until_another_callback_is_set) {
  Persistency persistency = open();
  int first = 0;
  int second = 0;
  auto alive = std::make_shared<int>();
  persistency.setCallback([&first, alive] { ++first; });
  static_cast<void>(persistency.controlledSaveBinaryData({1}, "b"));
  EXPECT_EQ(alive.use_count(), 2);
  persistency.setStoringAllowed(false);
  static_cast<void>(persistency.controlledSaveBinaryData({1}, "b"));
  persistency.setStoringAllowed(true);
  persistency.setCallback([&second] { ++second; });
  EXPECT_EQ(alive.use_count(), 1);
  static_cast<void>(persistency.controlledSaveBinaryData({1}, "b"));
  persistency.setCallback({});
  static_cast<void>(persistency.controlledSaveBinaryData({1}, "b"));
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 1);
}

TEST_F(PersistencyTest, the_table_takes_the_place_of_the_storage) {
  const std::vector<std::pair<std::string, KvsType>> entries{
      {"binary", KvsType(Bytes{1, 2})},
      {"bool", KvsType(true)},
      {"double", KvsType(1.5)},
      {"text", KvsType("text")},
      {"u16", KvsType(std::uint16_t{16})},
      {"u32", KvsType(std::uint32_t{32})},
      {"u64", KvsType(std::uint64_t{64})},
      {"u8", KvsType(std::uint8_t{8})},
  };
  {
    Persistency persistency = open();
    auto& gateway = persistency.gateway();
    for (const auto& [key, value] : entries)
      gateway.setValue(key, value);
    gateway.setValue("signed", KvsType(std::int32_t{-1}));
    gateway.sync();

    gateway.fillTable();
    EXPECT_THAT(log_.Texts("DBAC"),
                ElementsAre("Left out of the table: signed\n\tNot supported KVS type"));
    for (const auto& [key, value] : entries)
      EXPECT_EQ(persistency.getValue(key), value) << key;
    EXPECT_FALSE(gateway.hasKey("signed"));
    EXPECT_EQ(persistency.getValue("signed").GetStatus(), KvsType::Status::kGeneralError);

    // A write changes the type of an entry too, but makes no entries.
    for (const auto& [key, value] : entries) {
      gateway.setValue("bool", value);
      EXPECT_EQ(persistency.getValue("bool"), value) << key;
    }
    EXPECT_THROW(gateway.setValue("u8", KvsType(1.0F)), std::out_of_range);
    try {
      gateway.setValue("unknown", KvsType(true));
      FAIL();
    } catch (const ara::per::ExceptionLogicError& error) {
      EXPECT_STREQ(error.what(), "No such entry");
    }
    EXPECT_FALSE(persistency.controlledSaveBinaryData({1}, "blob"));
    EXPECT_TRUE(log_.Has("Unable to store to DB: No such entry"));
    gateway.removeKey("text");
    EXPECT_FALSE(gateway.hasKey("text"));
    gateway.sync();
  }
  Persistency untouched = open();
  for (const auto& [key, value] : entries)
    EXPECT_EQ(untouched.getValue(key), value) << key;
}

}  // namespace
