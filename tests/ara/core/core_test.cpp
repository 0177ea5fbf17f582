#include <gmock/gmock.h>

#include <stdexcept>
#include <string>

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

}  // namespace
}  // namespace ara::core
