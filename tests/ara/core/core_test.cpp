#include <gmock/gmock.h>

#include <stdexcept>
#include <string>

#include "ara/core/instance_specifier.h"
#include "platform/linux/core/application.h"
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

TEST(Initialize,
     names_the_variables_after_the_application_and_refuses_what_a_bus_or_a_path_cannot_hold) {
  EXPECT_EQ(variable_name("MANIFEST"), "POS_MANIFEST");
  EXPECT_EQ(application().node, "POS");
  const std::string longest(32, 'a');
  for (const std::string& name :
       {std::string(), longest + "a", std::string("1a"), std::string("a-b"), std::string("A"),
        std::string("a/b"), std::string("a.b")}) {
    EXPECT_THAT(test::error_of<std::invalid_argument>([&] { Initialize({.name = name}); }),
                HasSubstr('"' + name + '"'));
  }
  Initialize({.name = longest});
  EXPECT_EQ(application().node, longest);
  EXPECT_EQ(variable_name("MANIFEST"), std::string(32, 'A') + "_MANIFEST");
  Initialize({.name = "pos", .node = "POS"});
}

}  // namespace
}  // namespace ara::core
