#include "persistency/Persistency.h"

#include <gmock/gmock.h>

#include <fstream>
#include <memory>
#include <optional>
#include <span>

#include "tests/support/capture.h"
#include "tests/support/store.h"

namespace {

using ara::per::KvsType;
using testing::ElementsAre;
using Bytes = std::vector<std::uint8_t>;

std::optional<Bytes> read(const Persistency& persistency, const std::string& key) {
  const auto blob = persistency.controlledReadBinaryData(key);
  return blob ? std::optional(*blob) : std::nullopt;
}

class Storage : public testing::Test {
 protected:
  Store store_;
  test::Capture log_;
};

TEST_F(Storage, with_a_broken_storage_file_everything_reads_as_empty) {
  std::ofstream(store_.file()) << "{ \"a\": ";
  Persistency persistency = store_.open();
  EXPECT_FALSE(persistency.gateway().isStorageUsable());
  EXPECT_EQ(persistency.getValue("a").GetStatus(), KvsType::Status::kGeneralError);
  persistency.gateway().setValue("a", KvsType(true));
  EXPECT_FALSE(persistency.gateway().hasKey("a"));
  persistency.remove("a");
  EXPECT_FALSE(persistency.controlledSaveBinaryData({1}, "blob"));
  EXPECT_EQ(read(persistency, "blob"), std::nullopt);
}

TEST_F(Storage, storing_can_be_forbidden_and_allowed_again) {
  Persistency persistency = store_.open();
  EXPECT_TRUE(persistency.gateway().isStorageUsable());
  persistency.gateway().setValue("x", KvsType(std::uint32_t{7}));
  persistency.setStoringAllowed(false);
  persistency.remove("x");
  EXPECT_TRUE(persistency.gateway().hasKey("x"));
  EXPECT_FALSE(persistency.controlledSaveBinaryData({1, 2}, "blob"));
  EXPECT_FALSE(persistency.gateway().hasKey("blobbeforeRW"));

  persistency.setStoringAllowed(true);
  persistency.remove("x");
  EXPECT_FALSE(persistency.gateway().hasKey("x"));
}

TEST_F(Storage, a_blob_outlives_the_process) {
  const Bytes blob{0, 255, 10, 13, 34};
  std::filesystem::remove(store_.folder());  // it is made anew
  {
    Persistency persistency = store_.open();
    EXPECT_TRUE(persistency.controlledSaveBinaryData(blob, "b"));
    EXPECT_TRUE(persistency.controlledSaveBinaryData({}, "empty"));
  }
  Persistency persistency = store_.open();
  EXPECT_EQ(read(persistency, "b"), blob);
  EXPECT_EQ(read(persistency, "empty"), Bytes());
}

TEST_F(Storage, interrupted_writes_and_damaged_blobs_read_as_nothing) {
  Persistency persistency = store_.open();
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
    return read(persistency, "b");
  };
  EXPECT_EQ(read_with(2, KvsType("no bytes")), std::nullopt);
  EXPECT_EQ(read_with(2, KvsType(Bytes{1, 2, 3})), std::nullopt);
  EXPECT_EQ(read_with(std::uint64_t{1} << 40, KvsType(Bytes{1})), std::nullopt);
  EXPECT_TRUE(log_.has("Unable to extract value for key bsize is 1099511627776"))
      << "must fail before it becomes an allocation";
  EXPECT_EQ(read_with(3, KvsType(Bytes{1})), Bytes({1, 0, 0}));
}

TEST_F(Storage, a_save_that_fails_half_way_leaves_no_entry_now_and_at_the_next_start) {
  for (const auto* when : {"now", "at the next start"}) {
    Persistency persistency = store_.open();
    EXPECT_FALSE(persistency.gateway().hasKey("bbeforeRW")) << when;
    const Bytes too_large(std::size_t{9} << 20);  // twice the size as text; its size can be stored
    EXPECT_FALSE(persistency.controlledSaveBinaryData(too_large, "b"));
    EXPECT_TRUE(log_.has("controlledSaveBinaryData failed"));
    EXPECT_FALSE(persistency.gateway().hasKey("bbeforeRW")) << when;
  }
}

TEST_F(Storage, the_owner_hears_of_each_save_that_succeeded_until_another_callback_is_set) {
  Persistency persistency = store_.open();
  const auto save = [&] { static_cast<void>(persistency.controlledSaveBinaryData({1}, "b")); };
  std::string heard;
  const auto alive = std::make_shared<int>();
  persistency.setCallback([&heard, alive] { heard += "first "; });
  save();
  EXPECT_EQ(alive.use_count(), 2);
  persistency.setStoringAllowed(false);
  save();
  persistency.setStoringAllowed(true);
  persistency.setCallback([&heard] { heard += "second "; });
  EXPECT_EQ(alive.use_count(), 1);
  save();
  persistency.setCallback({});
  save();
  EXPECT_EQ(heard, "first second ");
}

TEST_F(Storage, the_table_takes_the_place_of_the_storage) {
  const std::vector<std::pair<std::string, KvsType>> entries{{"binary", KvsType(Bytes{1, 2})},
                                                             {"bool", KvsType(true)},
                                                             {"double", KvsType(1.5)},
                                                             {"text", KvsType("text")},
                                                             {"u16", KvsType(std::uint16_t{16})},
                                                             {"u32", KvsType(std::uint32_t{32})},
                                                             {"u64", KvsType(std::uint64_t{64})},
                                                             {"u8", KvsType(std::uint8_t{8})},
                                                             {"signed", KvsType(std::int32_t{-1})}};
  store_.write(entries);
  {
    Persistency persistency = store_.open();
    auto& gateway = persistency.gateway();
    gateway.fill_table();
    EXPECT_THAT(log_.texts("DBAC"),
                ElementsAre("Left out of the table: signed\n\tNot supported KVS type"));
    EXPECT_FALSE(gateway.hasKey("signed"));
    EXPECT_EQ(persistency.getValue("signed").GetStatus(), KvsType::Status::kGeneralError);
    const auto taken = std::span{entries}.first(8);
    for (const auto& [key, value] : taken)
      EXPECT_EQ(persistency.getValue(key), value) << key;
    for (const auto& [key, value] : taken) {
      gateway.setValue("bool", value);  // a write changes the type of an entry too
      EXPECT_EQ(persistency.getValue("bool"), value) << key;
    }
    EXPECT_THROW(gateway.setValue("u8", KvsType(1.0F)), std::out_of_range);
    EXPECT_THROW(gateway.setValue("unknown", KvsType(true)), ara::per::ExceptionLogicError);
    gateway.removeKey("text");
    EXPECT_FALSE(gateway.hasKey("text"));
    gateway.sync();
  }
  Persistency untouched = store_.open();
  for (const auto& [key, value] : entries)
    EXPECT_EQ(untouched.getValue(key), value) << key;
}

}  // namespace
