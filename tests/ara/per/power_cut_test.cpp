// A store on a disk that fails: each system call of a replacement in turn, or all of them from one
// on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "ara/per/exceptions.h"
#include "platform/linux/per/json_text.h"
#include "platform/linux/per/store_file.h"
#include "tests/ara/per/simulated_disk.h"

namespace ara::per {
namespace {

using ::testing::AnyOf;
using ::testing::Eq;
using ::testing::HasSubstr;

const std::string kPath = "/store/Port.json";
const std::string kAside = "/store/Port.json.new";

std::string TextWith(std::uint32_t number) {
  return ToText({{"number", KvsType(number)}, {"text", KvsType(std::string(5000, 'x'))}});
}
const std::string& Old() {
  static const std::string text = TextWith(1);
  return text;
}
const std::string& New() {
  static const std::string text = TextWith(2);
  return text;
}

SimulatedDisk::Image OldStore() {
  return {{kPath, Old()}};
}

/// What a start after the crash reads, as the application does it.
std::string ReadAfter(const SimulatedDisk::Image& image) {
  SimulatedDisk disk(image);
  const StoreFile store("/store", "Port.json", disk);
  const auto text = store.Read();
  if (!text) return "";
  (void)ParseValues(*text, store.path());
  store.RemoveLeftover();
  EXPECT_FALSE(disk.Now().contains(kAside));
  return *text;
}

/// The calls that one replacement makes.
int CallsOfReplace() {
  SimulatedDisk disk(OldStore());
  StoreFile("/store", "Port.json", disk).Replace(New());
  return disk.calls();
}

TEST(PowerCut, at_any_call_leaves_the_old_or_the_new_store_whole) {
  std::size_t states = 0;
  for (const auto& before :
       {SimulatedDisk::Image{{kPath, Old()}},
        SimulatedDisk::Image{{kPath, Old()}, {kAside, "{\"left over"}}, SimulatedDisk::Image{}}) {
    const std::string old = before.contains(kPath) ? Old() : "";
    for (int cut = 0; cut <= CallsOfReplace(); ++cut) {
      // Short writes, so that the cut also comes between two of them.
      SimulatedDisk disk(before, [cut](int number, const std::string& name) {
        if (number == cut) return SimulatedDisk::kPowerCut;
        return name == "write" && number < 4 ? SimulatedDisk::kShort : 0;
      });
      try {
        StoreFile("/store", "Port.json", disk).Replace(New());
      } catch (const SimulatedDisk::PowerCut&) {        // NOLINT(bugprone-empty-catch)
      } catch (const ExceptionPhysicalStorageError&) {  // NOLINT(bugprone-empty-catch)
        // The process is gone: nobody is left to be told.
      }
      for (const auto& image : disk.AfterPowerCut()) {
        EXPECT_THAT(ReadAfter(image), AnyOf(Eq(old), Eq(New()))) << "cut at call " << cut;
        ++states;
      }
    }
  }
  EXPECT_GT(states, 100U);
}

TEST(PowerCut, after_a_finished_replacement_leaves_the_new_store) {
  SimulatedDisk disk(SimulatedDisk::Image{{kPath, Old()}, {kAside, "left over"}});
  StoreFile("/store", "Port.json", disk).Replace(New());
  for (const auto& image : disk.AfterPowerCut())
    EXPECT_EQ(ReadAfter(image), New());
  EXPECT_EQ(disk.Now(), (SimulatedDisk::Image{{kPath, New()}}));
  EXPECT_EQ(disk.open_descriptors(), 0);
}

TEST(FailingDisk,
     a_call_that_fails_is_reported_and_leaves_a_whole_store_now_and_after_a_power_cut) {
  for (const int error : {EIO, ENOSPC, EROFS}) {
    for (int failing = 0; failing < CallsOfReplace(); ++failing) {
      SimulatedDisk disk(OldStore(), [&](int number, const std::string& /*name*/) {
        return number == failing ? error : 0;
      });
      const StoreFile store("/store", "Port.json", disk);
      bool failed = false;
      try {
        store.Replace(New());
      } catch (const ExceptionPhysicalStorageError& caught) {
        failed = true;
        EXPECT_THAT(caught.what(), HasSubstr(std::strerror(error)));
        EXPECT_THAT(caught.what(), HasSubstr("/store"));
      }
      // Only closing the folder can fail without harm.
      EXPECT_EQ(failed, failing + 1 < CallsOfReplace()) << "call " << failing;
      EXPECT_EQ(disk.open_descriptors(), 0) << "call " << failing;
      EXPECT_FALSE(disk.Now().contains(kAside)) << "call " << failing;
      for (const auto& image : disk.AfterPowerCut()) {
        EXPECT_THAT(ReadAfter(image),
                    failed ? AnyOf(Eq(Old()), Eq(New())) : AnyOf(Eq(New()), Eq(New())));
      }
      store.Replace(New());
      for (const auto& image : disk.AfterPowerCut())
        EXPECT_EQ(ReadAfter(image), New());
    }
  }
}

TEST(FailingDisk, interruptions_and_short_writes_are_taken_up_again) {
  SimulatedDisk disk(OldStore(), [](int number, const std::string& name) {
    if (name == "write") return SimulatedDisk::kShort;
    return number % 2 == 0 ? EINTR : 0;
  });
  StoreFile("/store", "Port.json", disk).Replace(New());
  for (const auto& image : disk.AfterPowerCut())
    EXPECT_EQ(ReadAfter(image), New());

  SimulatedDisk stutter(OldStore(), [](int number, const std::string& name) {
    if (name == "read") return number % 2 == 0 ? EINTR : SimulatedDisk::kShort;
    return 0;
  });
  EXPECT_EQ(StoreFile("/store", "Port.json", stutter).Read(), Old());
}

TEST(FailingDisk, a_file_that_cannot_be_read_is_reported_with_the_reason) {
  for (const int error : {EACCES, EIO}) {
    for (int failing = 0; failing < 3; ++failing) {
      SimulatedDisk disk(OldStore(), [&](int number, const std::string& /*name*/) {
        return number == failing ? error : 0;
      });
      try {
        (void)StoreFile("/store", "Port.json", disk).Read();
        ADD_FAILURE();
      } catch (const ExceptionPhysicalStorageError& caught) {
        EXPECT_THAT(caught.what(), HasSubstr("\"" + kPath + "\": " + std::strerror(error)));
      }
      EXPECT_EQ(disk.open_descriptors(), 0);
    }
  }
}

}  // namespace
}  // namespace ara::per
