#include "platform/linux/per/json_text.h"

#include <gmock/gmock.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "tests/support/error_of.h"

namespace ara::per {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

TEST(Json_text, every_type_and_its_extremes_come_back) {
  const Values values{{"bool", KvsType(true)},
                      {"u8", KvsType(std::uint8_t{255})},
                      {"u16", KvsType(std::uint16_t{65535})},
                      {"u32", KvsType(std::uint32_t{4294967295U})},
                      {"u64", KvsType(std::numeric_limits<std::uint64_t>::max())},
                      {"s8", KvsType(std::int8_t{-128})},
                      {"s16", KvsType(std::int16_t{-32768})},
                      {"s32", KvsType(std::numeric_limits<std::int32_t>::min())},
                      {"s64", KvsType(std::numeric_limits<std::int64_t>::min())},
                      {"float", KvsType(0.1F)},
                      {"largest float", KvsType(-std::numeric_limits<float>::max())},
                      {"double", KvsType(48.123456789012345)},
                      {"smallest double", KvsType(std::numeric_limits<double>::denorm_min())},
                      {"infinite", KvsType(-std::numeric_limits<double>::infinity())},
                      {"text \"\\\n\t\x01\u00e4\u20ac", KvsType("\"quoted\" \\ \n \u00e4")},
                      {"empty text", KvsType("")},
                      {"binary", KvsType(std::vector<std::uint8_t>{0, 255, 16, 1})},
                      {"empty binary", KvsType(nullptr, 0)}};
  EXPECT_EQ(parse_values(to_text(values), "file"), values);
  const auto nan = parse_values(to_text({{"nan", KvsType(std::nan(""))}}), "file");
  EXPECT_TRUE(std::isnan(nan.at("nan").GetDouble()));
  EXPECT_TRUE(parse_values(to_text({}), "file").empty());
  EXPECT_EQ(to_text({{"b", KvsType(std::uint32_t{1000})},
                     {"a", KvsType(std::vector<std::uint8_t>{0xAB, 0})}}),
            "{\n"
            "  \"a\": {\"type\": \"Binary\", \"value\": \"ab00\"},\n"
            "  \"b\": {\"type\": \"UInt32\", \"value\": 1000}\n"
            "}\n");
}

TEST(Json_text, what_is_not_a_store_is_refused_with_the_place_and_what_was_expected) {
  const std::string deep(1'000'000, '[');
  const struct {
    std::string text;
    const char* expected;
  } cases[] = {
      {"", "line 1, column 1"},
      {"{\n  \"a\": {\"type\": \"UInt8\" \"value\": 1}\n}", "line 2, column"},
      {"{\"a\": {\"type\": \"UInt8\", \"value\": 1}} x", "line 1, column"},
      {"\xff", "line 1, column 1"},
      {"[]", "expected an object with one entry per key, found an array"},
      {deep, "expected an object with one entry per key, found an array"},
      {R"({"a": 1})", R"(key "a" is not an object with "type" and "value" but a number)"},
      {R"({"a": {"type": "UInt8"}})", R"(key "a" has no "value")"},
      {R"({"a": {"type": "uint8", "value": 1}})",
       R"(key "a" has the unknown type "uint8", expected one of Boolean, UInt8)"},
      {R"({"a": {"type": 7, "value": 1}})", R"(key "a" has as "type" a number)"},
      {R"({"a": {"type": "UInt8", "value": 1, "unit": "m"}})", R"(key "a" has a member "unit")"},
      {R"({"a": {"type": "UInt8", "value": 1, "value": 2}})", R"(key "a" has its "value" twice)"},
      {R"({"a": {"type": "UInt8", "value": 1}, "a": {"type": "UInt8", "value": 1}})",
       R"(key "a" is there twice)"},
      {R"({"a": {"type": "UInt8", "value": {}}})", R"(key "a" has as "value" an object)"},
      {R"({"a": {"type": "UInt8", "value": 256}})",
       R"(key "a" of type UInt8 needs as value an integer from 0 to 255)"},
      {R"({"a": {"type": "UInt32", "value": 1.5}})", "an integer from 0 to 4294967295"},
      {R"({"a": {"type": "UInt64", "value": 18446744073709551616}})",
       "an integer from 0 to 18446744073709551615"},
      {R"({"a": {"type": "SInt64", "value": 9223372036854775808}})",
       "an integer from -9223372036854775808"},
      {R"({"a": {"type": "Boolean", "value": 1}})", "true or false"},
      {R"({"a": {"type": "String", "value": null}})", "a text"},
      {R"({"a": {"type": "Float", "value": 1e39}})", "a number that a float can hold"},
      {R"({"a": {"type": "Double", "value": "1"}})", "a number, \"NaN\""},
      {R"({"a": {"type": "Double", "value": 1e999}})",
       R"(key "a" has a number that no type can hold)"},
      {R"({"a": {"type": "Binary", "value": "abc"}})", "pairs of hexadecimal digits"},
      {R"({"a": {"type": "Binary", "value": "+1-1"}})", "pairs of hexadecimal digits"},
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_THAT(test::error_of<ExceptionValidation>(
                    [&text = text] { (void)parse_values(text, "/store/POS.json"); }),
                AllOf(HasSubstr("storage file \"/store/POS.json\": "), HasSubstr(expected)))
        << text.substr(0, 100);
  }
}

TEST(KvsType, a_mistyped_getter_names_both_types_and_nothing_is_converted) {
  const KvsType value(std::int32_t{5});
  EXPECT_EQ(value.GetType(), KvsType::Type::kSInt32);
  EXPECT_EQ(value.GetStatus(), KvsType::Status::kSuccess);
  EXPECT_EQ(value.GetSInt(), 5);
  EXPECT_EQ(test::error_of<ExceptionLogicError>([&] { (void)value.GetUInt(); }),
            "value of type SInt32 was read as UInt8, UInt16 or UInt32");
  EXPECT_THROW((void)value.GetSInt64(), ExceptionLogicError);
  EXPECT_THROW((void)KvsType(1.5F).GetDouble(), ExceptionLogicError);
  EXPECT_THROW((void)KvsType().GetBool(), ExceptionLogicError);
  EXPECT_NE(KvsType().GetStatus(), KvsType::Status::kSuccess);
  EXPECT_EQ(KvsType("literal").GetType(), KvsType::Type::kString);
}

TEST(KvsType, a_binary_is_copied_into_a_buffer_that_holds_it) {
  const std::uint8_t bytes[] = {1, 2, 3};
  const KvsType value(bytes, sizeof bytes);
  std::vector<std::uint8_t> buffer(5, 9);
  EXPECT_EQ(value.GetBinary(buffer.data(), buffer.size()), 3U);
  EXPECT_EQ(buffer, (std::vector<std::uint8_t>{1, 2, 3, 9, 9}));
  EXPECT_THROW(value.GetBinary(buffer.data(), 2), ExceptionLogicError);
  EXPECT_EQ(KvsType(nullptr, 0).GetBinary(nullptr, 0), 0U);
}

}  // namespace
}  // namespace ara::per
