#include <gmock/gmock.h>

#include <chrono>
#include <stdexcept>
#include <string>

#include "ara/core/future.h"
#include "ara/core/instance_specifier.h"
#include "tests/support/error_of.h"

namespace ara::core {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

TEST(InstanceSpecifier, takes_short_names_joined_by_slashes_and_refuses_others_with_the_reason) {
  const std::string longest(255, 'a');
  for (const std::string& text : {std::string("A"), std::string("Root/Child_1/x"), longest}) {
    EXPECT_EQ(InstanceSpecifier(text).ToString(), text);
  }
  const std::pair<std::string, const char*> cases[] = {
      {"", "is empty"},
      {longest + "a", "more than 255"},
      {"/A", "empty name"},
      {"A/", "empty name"},
      {"A//B", "empty name"},
      {"1A", "must start with a letter"},
      {"A/_B", "start with a letter"},
      {"A B", "only letters, digits"},
      {"A\u00e4", "only letters, digits"},
  };
  for (const auto& [text, reason] : cases) {
    EXPECT_THAT(test::error_of<std::invalid_argument>([&text = text] { InstanceSpecifier{text}; }),
                AllOf(HasSubstr(reason), HasSubstr('"' + text.substr(0, 255) + '"')));
  }
}

TEST(Future, gives_the_value_the_exception_or_the_end_of_its_promise) {
  Promise<int> promise, failing;
  auto future = promise.get_future(), failed = failing.get_future();
  EXPECT_EQ(future.wait_for(std::chrono::milliseconds(1)), future_status::timeout);
  promise.set_value(5);
  EXPECT_TRUE(future.is_ready());
  EXPECT_EQ(future.get(), 5);
  EXPECT_FALSE(future.valid());
  failing.set_exception(std::make_exception_ptr(std::runtime_error("reason")));
  EXPECT_THROW(failed.get(), std::runtime_error);
  auto abandoned = Promise<int>().get_future();
  EXPECT_THROW(abandoned.get(), std::future_error);
}

}  // namespace
}  // namespace ara::core
