#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "ara/core/instance_specifier.h"

namespace ara::core {
namespace {

using ::testing::HasSubstr;

TEST(InstanceSpecifier, takes_short_names_joined_by_slashes) {
  for (const std::string text : {"A", "POS__ORVEL1_Sys_Adaptive_01_instance1", "Root/Child_1/x"}) {
    EXPECT_EQ(InstanceSpecifier(text).ToString(), text);
  }
}

TEST(InstanceSpecifier, refuses_anything_else_with_the_text_and_the_reason) {
  const std::string longest(255, 'a');
  EXPECT_EQ(InstanceSpecifier(longest).ToString(), longest);
  const struct {
    std::string text;
    const char* reason;
  } cases[] = {
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
    try {
      const InstanceSpecifier accepted(text);
      ADD_FAILURE() << text;
    } catch (const std::invalid_argument& error) {
      EXPECT_THAT(error.what(), HasSubstr(reason)) << text;
      EXPECT_THAT(error.what(), HasSubstr('"' + text.substr(0, 255) + '"'));
    }
  }
}

}  // namespace
}  // namespace ara::core
