// A store on a disk that fails: each system call of a replacement in turn, or all of them from one
// on.
#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "ara/per/exceptions.h"
#include "platform/linux/per/json_text.h"
#include "platform/linux/per/store_file.h"
#include "tests/ara/per/simulated_disk.h"
#include "tests/support/error_of.h"

namespace ara::per {
namespace {

using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::Eq;
using ::testing::HasSubstr;

const std::string store_path = "/store/Port.json";
const std::string aside = "/store/Port.json.new";

std::string TextWith(std::uint32_t number) {
  return ToText({{"number", KvsType(number)}, {"text", KvsType(std::string(5000, 'x'))}});
}
const std::string old_content = TextWith(1);
const std::string new_content = TextWith(2);

SimulatedDisk::Image OldStore() {
  return {{store_path, old_content}};
}

/// What a start after the crash reads, as the application does it.
std::string ReadAfter(const SimulatedDisk::Image& image) {
  SimulatedDisk disk(image);
  const StoreFile store("/store", "Port.json", disk);
  const auto text = store.Read();
  if (!text) return "";
  (void)ParseValues(*text, store.path());
  store.RemoveLeftover();
  EXPECT_FALSE(disk.Now().contains(aside));
  return *text;
}

SimulatedDisk FailingAt(int call, int error) {
  return SimulatedDisk(OldStore(), [=](int number, std::string_view /*name*/) {
    return number == call ? error : 0;
  });
}

/// The calls that one replacement makes.
int CallsOfReplace() {
  SimulatedDisk disk(OldStore());
  StoreFile("/store", "Port.json", disk).Replace(new_content);
  return disk.calls();
}

TEST(PowerCut, at_any_call_leaves_the_old_or_the_new_store_whole) {
  std::size_t states = 0;
  for (const auto& before :
       {SimulatedDisk::Image{{store_path, old_content}},
        SimulatedDisk::Image{{store_path, old_content}, {aside, "{\"left over"}},
        SimulatedDisk::Image{}}) {
    const std::string old = before.contains(store_path) ? old_content : "";
    for (int cut = 0; cut <= CallsOfReplace(); ++cut) {
      // Short writes, so that the cut also comes between two of them.
      SimulatedDisk disk(before, [cut](int number, std::string_view name) {
        if (number == cut) return SimulatedDisk::power_cut;
        return name == "write" && number < 4 ? SimulatedDisk::short_write : 0;
      });
      try {
        StoreFile("/store", "Port.json", disk).Replace(new_content);
      } catch (const SimulatedDisk::PowerCut&) {        // NOLINT(bugprone-empty-catch)
      } catch (const ExceptionPhysicalStorageError&) {  // NOLINT(bugprone-empty-catch)
        // The process is gone: nobody is left to be told.
      }
      for (const auto& image : disk.AfterPowerCut()) {
        EXPECT_THAT(ReadAfter(image), AnyOf(Eq(old), Eq(new_content))) << "cut at call " << cut;
        ++states;
      }
    }
  }
  EXPECT_GT(states, 100U);
}

/// Replaces the store, after which no power cut brings the old one back.
void ReplaceForGood(SimulatedDisk& disk) {
  StoreFile("/store", "Port.json", disk).Replace(new_content);
  for (const auto& image : disk.AfterPowerCut())
    EXPECT_EQ(ReadAfter(image), new_content);
  EXPECT_EQ(disk.Now(), (SimulatedDisk::Image{{store_path, new_content}}));
  EXPECT_EQ(disk.open_descriptors(), 0U);
}

TEST(FailingDisk,
     a_call_that_fails_is_reported_and_leaves_a_whole_store_now_and_after_a_power_cut) {
  for (const int error : {EIO, ENOSPC, EROFS}) {
    for (int failing = 0; failing < CallsOfReplace(); ++failing) {
      SimulatedDisk disk = FailingAt(failing, error);
      const StoreFile store("/store", "Port.json", disk);
      const auto text =
          test::error_of<ExceptionPhysicalStorageError>([&] { store.Replace(new_content); });
      // Only closing the folder can fail without harm.
      const bool failed = failing + 1 < CallsOfReplace();
      EXPECT_THAT(text, AllOf(HasSubstr(failed ? std::strerror(error) : "no exception"),
                              HasSubstr(failed ? "/store" : "")))
          << "call " << failing;
      EXPECT_EQ(disk.open_descriptors(), 0U) << "call " << failing;
      EXPECT_FALSE(disk.Now().contains(aside)) << "call " << failing;
      for (const auto& image : disk.AfterPowerCut()) {
        EXPECT_THAT(ReadAfter(image),
                    AnyOf(Eq(failed ? old_content : new_content), Eq(new_content)));
      }
      ReplaceForGood(disk);
    }
  }
}

TEST(FailingDisk, interruptions_and_short_writes_are_taken_up_again) {
  SimulatedDisk disk({{store_path, old_content}, {aside, "left over"}},
                     [](int number, std::string_view name) {
                       if (name == "write") return SimulatedDisk::short_write;
                       return number % 2 == 0 ? EINTR : 0;
                     });
  ReplaceForGood(disk);

  SimulatedDisk stutter(OldStore(), [](int number, std::string_view name) {
    if (name == "read") return number % 2 == 0 ? EINTR : SimulatedDisk::short_write;
    return 0;
  });
  EXPECT_EQ(StoreFile("/store", "Port.json", stutter).Read(), old_content);
}

TEST(FailingDisk, a_file_that_cannot_be_read_is_reported_with_the_reason) {
  for (const int error : {EACCES, EIO}) {
    for (int failing = 0; failing < 3; ++failing) {
      SimulatedDisk disk = FailingAt(failing, error);
      EXPECT_THAT(test::error_of<ExceptionPhysicalStorageError>(
                      [&] { (void)StoreFile("/store", "Port.json", disk).Read(); }),
                  HasSubstr("\"" + store_path + "\": " + std::strerror(error)));
      EXPECT_EQ(disk.open_descriptors(), 0U);
    }
  }
}

}  // namespace
}  // namespace ara::per
