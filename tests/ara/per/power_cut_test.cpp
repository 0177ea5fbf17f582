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

std::string text_with(std::uint32_t number) {
  return to_text({{"number", KvsType(number)}, {"text", KvsType(std::string(5000, 'x'))}});
}
const std::string old_content = text_with(1);
const std::string new_content = text_with(2);

Simulated_disk::Image old_store() {
  return {{store_path, old_content}};
}

/// What a start after the crash reads, as the application does it.
std::string read_after(const Simulated_disk::Image& image) {
  Simulated_disk disk(image);
  const Store_file store("/store", "Port.json", disk);
  const auto text = store.read();
  if (!text) return "";
  (void)parse_values(*text, store.path());
  store.remove_leftover();
  EXPECT_FALSE(disk.now().contains(aside));
  return *text;
}

Simulated_disk failing_at(int call, int error) {
  return Simulated_disk(old_store(), [=](int number, std::string_view /*name*/) {
    return number == call ? error : 0;
  });
}

/// The calls that one replacement makes.
int calls_of_replace() {
  Simulated_disk disk(old_store());
  Store_file("/store", "Port.json", disk).replace(new_content);
  return disk.calls();
}

TEST(Power_cut, at_any_call_leaves_the_old_or_the_new_store_whole) {
  std::size_t states = 0;
  for (const auto& before :
       {Simulated_disk::Image{{store_path, old_content}},
        Simulated_disk::Image{{store_path, old_content}, {aside, "{\"left over"}},
        Simulated_disk::Image{}}) {
    const std::string old = before.contains(store_path) ? old_content : "";
    for (int cut = 0; cut <= calls_of_replace(); ++cut) {
      // Short writes, so that the cut also comes between two of them.
      Simulated_disk disk(before, [cut](int number, std::string_view name) {
        if (number == cut) return Simulated_disk::power_cut;
        return name == "write" && number < 4 ? Simulated_disk::short_write : 0;
      });
      try {
        Store_file("/store", "Port.json", disk).replace(new_content);
      } catch (const Simulated_disk::Power_cut&) {      // NOLINT(bugprone-empty-catch)
      } catch (const ExceptionPhysicalStorageError&) {  // NOLINT(bugprone-empty-catch)
        // The process is gone: nobody is left to be told.
      }
      for (const auto& image : disk.after_power_cut()) {
        EXPECT_THAT(read_after(image), AnyOf(Eq(old), Eq(new_content))) << "cut at call " << cut;
        ++states;
      }
    }
  }
  EXPECT_GT(states, 100U);
}

/// Replaces the store, after which no power cut brings the old one back.
void replace_for_good(Simulated_disk& disk) {
  Store_file("/store", "Port.json", disk).replace(new_content);
  for (const auto& image : disk.after_power_cut())
    EXPECT_EQ(read_after(image), new_content);
  EXPECT_EQ(disk.now(), (Simulated_disk::Image{{store_path, new_content}}));
  EXPECT_EQ(disk.open_descriptors(), 0U);
}

TEST(Failing_disk,
     a_call_that_fails_is_reported_and_leaves_a_whole_store_now_and_after_a_power_cut) {
  for (const int error : {EIO, ENOSPC, EROFS}) {
    for (int failing = 0; failing < calls_of_replace(); ++failing) {
      Simulated_disk disk = failing_at(failing, error);
      const Store_file store("/store", "Port.json", disk);
      const auto text =
          test::error_of<ExceptionPhysicalStorageError>([&] { store.replace(new_content); });
      // Only closing the folder can fail without harm.
      const bool failed = failing + 1 < calls_of_replace();
      EXPECT_THAT(text, AllOf(HasSubstr(failed ? std::strerror(error) : "no exception"),
                              HasSubstr(failed ? "/store" : "")))
          << "call " << failing;
      EXPECT_EQ(disk.open_descriptors(), 0U) << "call " << failing;
      EXPECT_FALSE(disk.now().contains(aside)) << "call " << failing;
      for (const auto& image : disk.after_power_cut()) {
        EXPECT_THAT(read_after(image),
                    AnyOf(Eq(failed ? old_content : new_content), Eq(new_content)));
      }
      replace_for_good(disk);
    }
  }
}

TEST(Failing_disk, interruptions_and_short_writes_are_taken_up_again) {
  Simulated_disk disk({{store_path, old_content}, {aside, "left over"}},
                      [](int number, std::string_view name) {
                        if (name == "write") return Simulated_disk::short_write;
                        return number % 2 == 0 ? EINTR : 0;
                      });
  replace_for_good(disk);

  Simulated_disk stutter(old_store(), [](int number, std::string_view name) {
    if (name == "read") return number % 2 == 0 ? EINTR : Simulated_disk::short_write;
    return 0;
  });
  EXPECT_EQ(Store_file("/store", "Port.json", stutter).read(), old_content);
}

TEST(Failing_disk, a_file_that_cannot_be_read_is_reported_with_the_reason) {
  for (const int error : {EACCES, EIO}) {
    for (int failing = 0; failing < 3; ++failing) {
      Simulated_disk disk = failing_at(failing, error);
      EXPECT_THAT(test::error_of<ExceptionPhysicalStorageError>(
                      [&] { (void)Store_file("/store", "Port.json", disk).read(); }),
                  HasSubstr("\"" + store_path + "\": " + std::strerror(error)));
      EXPECT_EQ(disk.open_descriptors(), 0U);
    }
  }
}

}  // namespace
}  // namespace ara::per
