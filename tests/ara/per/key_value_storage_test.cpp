#include "ara/per/key_value_storage.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/per/store_file.h"
#include "tests/support/error_of.h"
#include "tests/support/temporary_folder.h"

namespace ara::per {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
namespace fs = std::filesystem;

/// What opening a store throws.
template <typename Error>
std::string error_of_opening() {
  return test::error_of<Error>([] { KeyValueStorage("Port"); });
}

class Key_value_storage : public ::testing::Test {
 public:
  Key_value_storage() {
    fs::create_directory(folder_);
    fs::create_directory(root_ / "initdata");
    ::setenv("POS_STORAGE_DIR", folder_.c_str(), 1);
    ::setenv("POS_INITDATA_DIR", (root_ / "initdata").c_str(), 1);
  }

 protected:
  static void write(const fs::path& path, std::string_view text) {
    std::ofstream(path, std::ios::binary) << text;
  }

  Temporary_folder root_;
  const fs::path folder_ = root_ / "store";
};

TEST_F(Key_value_storage, values_last_after_sync_only) {
  {
    KeyValueStorage storage("Port");
    EXPECT_FALSE(storage.HasKey("a"));
    EXPECT_EQ(storage.GetValue("a").GetStatus(), KvsType::Status::kNotFound);
    storage.SetValue("b", KvsType(std::uint32_t{1000}));
    storage.SetValue("a", KvsType(true));
    storage.SyncToStorage();
    storage.SetValue("c", KvsType("lost"));
    storage.RemoveKey("a");
    EXPECT_FALSE(storage.HasKey("a"));
  }
  KeyValueStorage storage("Port");
  EXPECT_THAT(storage.GetAllKeys(), ElementsAre("a", "b"));
  EXPECT_TRUE(storage.GetValue("a").GetBool());
  storage.RemoveKey("b");
  storage.RemoveKey("never there");
  storage.SyncToStorage();
  EXPECT_THAT(KeyValueStorage("Port").GetAllKeys(), ElementsAre("a"));
  EXPECT_TRUE(KeyValueStorage("Other_Port").GetAllKeys().empty());
}

TEST_F(Key_value_storage, sync_writes_when_something_changed_and_leaves_one_file) {
  KeyValueStorage storage("Port");
  storage.SyncToStorage();
  EXPECT_FALSE(fs::exists(folder_ / "Port.json"));
  storage.SetValue("a", KvsType(true));
  storage.SyncToStorage();
  fs::create_hard_link(folder_ / "Port.json", root_ / "as it was");
  storage.SyncToStorage();
  EXPECT_TRUE(fs::equivalent(folder_ / "Port.json", root_ / "as it was"));
  EXPECT_EQ(std::distance(fs::directory_iterator(folder_), fs::directory_iterator()), 1);
}

TEST_F(Key_value_storage, what_a_failed_sync_left_is_written_by_the_next_one) {
  KeyValueStorage storage("Port");
  storage.SetValue("a", KvsType(true));
  fs::create_symlink(root_ / "elsewhere", folder_ / "Port.json.new");
  EXPECT_THROW(storage.SyncToStorage(), ExceptionPhysicalStorageError);
  EXPECT_FALSE(fs::exists(root_ / "elsewhere")) << "no link is followed";
  storage.SyncToStorage();
  EXPECT_TRUE(KeyValueStorage("Port").HasKey("a"));
}

TEST_F(Key_value_storage, a_missing_folder_is_created_by_the_attempt_that_fails) {
  const fs::path deep = root_ / "a" / "b" / "c";
  ::setenv("POS_STORAGE_DIR", (deep.string() + "/").c_str(), 1);
  EXPECT_THAT(error_of_opening<ExceptionStorageLocationNotFound>(),
              HasSubstr("was not there; it has been created"));
  KeyValueStorage storage("Port");
  storage.SetValue("a", KvsType(true));
  storage.SyncToStorage();
  EXPECT_EQ(fs::status(deep / "Port.json").permissions(), fs::perms{0640});
  for (const auto& made : {deep, root_ / "a"})
    EXPECT_EQ(fs::status(made).permissions(), fs::perms{0750}) << made;

  write(root_ / "file", "");
  for (const auto& folder : {root_ / "file", root_ / "file" / "below"}) {
    ::setenv("POS_STORAGE_DIR", folder.c_str(), 1);
    for (int attempt = 0; attempt < 2; ++attempt) {
      EXPECT_THAT(error_of_opening<ExceptionStorageLocationNotFound>(),
                  HasSubstr("cannot be created: Not a directory"));
    }
  }
}

TEST_F(Key_value_storage, the_folder_comes_from_the_environment_in_order) {
  const char* const set = std::getenv("HOME");
  const std::string home = set != nullptr ? set : "";
  ::setenv("STATE_DIRECTORY", (root_ / "systemd:/elsewhere").c_str(), 1);
  ::setenv("XDG_STATE_HOME", (root_ / "xdg").c_str(), 1);
  ::setenv("HOME", (root_ / "home").c_str(), 1);
  ::unsetenv("POS_STORAGE_DIR");
  for (const auto& [variable, below] : {std::pair{"STATE_DIRECTORY", "systemd"},
                                        {"XDG_STATE_HOME", "xdg/pos"},
                                        {"HOME", "home/.local/state/pos"}}) {
    EXPECT_THAT(error_of_opening<ExceptionStorageLocationNotFound>(),
                HasSubstr("\"" + (root_ / below).string() + "\" was not there"));
    ::unsetenv(variable);
  }
  EXPECT_THAT(error_of_opening<ExceptionStorageLocationNotFound>(),
              HasSubstr("none of POS_STORAGE_DIR"));
  ::setenv("HOME", home.c_str(), 1);
}

TEST_F(Key_value_storage, first_values_fill_a_missing_store_only) {
  const fs::path seed = root_ / "initdata" / "initdata-Port.json";
  write(seed, R"({"a": {"type": "UInt8", "value": 1}})");
  {
    KeyValueStorage storage("Port");
    EXPECT_EQ(storage.GetValue("a").GetUInt(), 1U);
    storage.SyncToStorage();
  }
  write(seed, R"({"a": {"type": "UInt8", "value": 2}})");
  EXPECT_EQ(KeyValueStorage("Port").GetValue("a").GetUInt(), 1U);
  fs::remove(folder_ / "Port.json");
  write(seed, "{");
  EXPECT_THAT(error_of_opening<ExceptionValidation>(),
              HasSubstr(seed.string() + "\": parse error at line 1"));
}

TEST_F(Key_value_storage, a_file_that_is_not_a_store_is_refused_and_left_as_it_is) {
  const fs::path file = folder_ / "Port.json";
  write(file, "{");
  EXPECT_THAT(error_of_opening<ExceptionValidation>(), HasSubstr(file.string()));
  EXPECT_EQ(fs::file_size(file), 1U);
  write(file, "");
  fs::resize_file(file, 100'000'000);
  EXPECT_THAT(error_of_opening<ExceptionValidation>(),
              HasSubstr("expected at most 16777216 bytes, found 100000000"));
  EXPECT_EQ(fs::file_size(file), 100'000'000U);

  fs::remove(file);
  fs::create_directory(file);
  EXPECT_THAT(error_of_opening<ExceptionValidation>(),
              HasSubstr("expected a regular file, found a folder"));
  fs::remove(file);
  ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
  EXPECT_THAT(error_of_opening<ExceptionValidation>(), HasSubstr("expected a regular file"));
  fs::remove(file);
  fs::create_symlink("Port.json", file);
  EXPECT_THAT(error_of_opening<ExceptionPhysicalStorageError>(), HasSubstr("cannot open"));
}

TEST_F(Key_value_storage, what_could_not_be_read_back_is_not_taken_or_written) {
  KeyValueStorage storage("Port");
  EXPECT_THROW(storage.SetValue("", KvsType(true)), ExceptionLogicError);
  EXPECT_THROW(storage.SetValue("a", KvsType()), ExceptionLogicError);
  EXPECT_THROW(storage.SetValue("a", KvsType("\xff")), ExceptionLogicError);
  EXPECT_THROW(storage.SetValue("\xc3", KvsType(true)), ExceptionLogicError);
  for (const auto* port : {"", ".hidden", "a/b", ".."}) {
    EXPECT_THROW(KeyValueStorage{port}, ExceptionLogicError) << port;
  }
  storage.SetValue("a", KvsType("old"));
  storage.SyncToStorage();
  storage.SetValue("a", KvsType(std::vector<std::uint8_t>(std::size_t{9} << 20)));
  EXPECT_THAT(test::error_of<ExceptionPhysicalStorageError>([&] { storage.SyncToStorage(); }),
              HasSubstr("can hold at most"));
  EXPECT_EQ(KeyValueStorage("Port").GetValue("a").GetString(), "old");
  const Store_file longest(folder_, "longest", Files::of_the_system());
  longest.replace(std::string(max_file_size, ' '));
  EXPECT_EQ(longest.read()->size(), max_file_size);
}

TEST_F(Key_value_storage, threads_may_write_and_sync_at_once) {
  KeyValueStorage storage("Port");
  constexpr std::size_t thread_count = 4;
  {
    std::vector<std::jthread> threads;
    for (std::size_t thread = 0; thread < thread_count; ++thread) {
      threads.emplace_back([&storage, thread] {
        for (std::uint32_t i = 0; i < 20; ++i) {
          storage.SetValue("key" + std::to_string(thread), KvsType(i));
          storage.SyncToStorage();
        }
      });
    }
  }
  KeyValueStorage again("Port");
  EXPECT_EQ(again.GetAllKeys().size(), thread_count);
  for (const auto& key : again.GetAllKeys())
    EXPECT_EQ(again.GetValue(key).GetUInt(), 19U);
}

}  // namespace
}  // namespace ara::per
