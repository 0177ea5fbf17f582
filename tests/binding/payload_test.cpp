#include <gmock/gmock.h>

#include <map>
#include <string>

#include "binding/codec.h"
#include "tests/binding/bytes.h"
#include "tests/support/error_of.h"

namespace {

using binding::Buffer;
using binding::Cursor;
using binding::Serialization_settings;
using test::bad_end;
using test::beyond;
using test::error_of;
using test::hex;

constexpr Serialization_settings defaults{};
constexpr Serialization_settings little_endian{.byte_order = binding::Byte_order::little_endian};

constexpr auto bad_size = "Invalid value for length field size.";

TEST(Length_field, travels_in_the_configured_size_and_byte_order) {
  struct Case {
    std::uint64_t size;
    std::uint64_t value;
    Serialization_settings settings;
    const char* bytes;
  };
  for (const auto& c :
       {Case{1, 255, defaults, "ff"}, Case{2, 0x1234, defaults, "12 34"},
        Case{2, 0x1234, little_endian, "34 12"}, Case{4, 0xFFFFFFFF, defaults, "ff ff ff ff"},
        Case{4, 0x01020304, little_endian, "04 03 02 01"}}) {
    Buffer buffer;
    binding::write_length_field(c.size, c.value, buffer, c.settings);
    EXPECT_EQ(buffer, hex(c.bytes));
    Cursor cursor{buffer};
    EXPECT_EQ(binding::read_length_field(c.size, cursor, c.settings), c.value);
    EXPECT_EQ(cursor.remaining(), 0U);
  }
}

TEST(Length_field, refuses_other_sizes_and_values_that_do_not_fit) {
  Buffer buffer = hex("aa");
  const auto writing = [&](std::uint64_t size, std::uint64_t value) {
    return error_of([&] { binding::write_length_field(size, value, buffer, defaults); });
  };
  for (const auto size : {1U, 2U, 4U}) {
    EXPECT_EQ(writing(size, std::uint64_t{1} << (8 * size)),
              "Calculated record length does not fit into configured length field");
  }
  EXPECT_EQ(writing(0, 7), "no exception");
  EXPECT_EQ(writing(3, 1), bad_size);
  EXPECT_EQ(buffer, hex("aa"));
  buffer.resize(8);
  for (const auto size : {0U, 3U, 8U}) {
    Cursor cursor{buffer};
    EXPECT_EQ(error_of([&] { (void)binding::read_length_field(size, cursor, defaults); }),
              bad_size);
  }
}

TEST(Length_field, after_wire_type_4_needs_three_equal_sizes) {
  using enum binding::Wire_type;
  constexpr auto sizes = [](std::uint64_t array, std::uint64_t string, std::uint64_t structure) {
    return Serialization_settings{.array_length_field_size = array,
                                  .string_length_field_size = string,
                                  .structure_length_field_size = structure};
  };
  constexpr auto of_two_bytes = sizes(2, 2, 2);
  EXPECT_EQ(binding::length_field_size(bits_64, of_two_bytes), 0U);
  EXPECT_EQ(binding::length_field_size(length_8, of_two_bytes), 1U);
  EXPECT_EQ(binding::length_field_size(length_16, defaults), 2U);
  EXPECT_EQ(binding::length_field_size(length_32, of_two_bytes), 4U);
  EXPECT_EQ(binding::length_field_size(configured_length, of_two_bytes), 2U);
  for (const auto& unequal : {sizes(4, 2, 4), sizes(2, 2, 4), sizes(0, 0, 0)}) {
    EXPECT_THAT(error_of([&] { (void)binding::length_field_size(configured_length, unequal); }),
                testing::StartsWith("Violation of COM.PRS_SOMEIP_00215"));
  }
}

TEST(Values, travel_as_their_bit_pattern) {
  Buffer big;
  binding::encode(std::int32_t{-2}, big);
  binding::encode(1.0F, big);
  binding::encode(true, big);
  binding::encode(std::vector<std::uint8_t>{1, 2, 3}, big);
  EXPECT_EQ(big, hex("ff ff ff fe 3f 80 00 00 01 00 00 00 03 01 02 03"));
  Buffer little;
  binding::encode(-2.5, little, little_endian);
  EXPECT_EQ(little, hex("00 00 00 00 00 00 04 c0"));
  Cursor cursor{little};
  double value = 0;
  binding::decode(cursor, value, little_endian);
  EXPECT_EQ(value, -2.5);
}

TEST(String_map, takes_entries_to_the_end_of_its_length_and_skips_a_surplus_that_is_none) {
  const auto outer_and_a_b = [](const std::string& outer) {
    return outer + "00000001 61 00000001 62";
  };
  using Map = std::map<std::string, std::string>;
  struct Case {
    std::string payload;
    std::size_t left_over;
    Map expected = {{"a", "b"}};
  };
  const auto zeros = [](std::size_t count) { return std::string(2 * count, '0'); };
  for (const auto& [payload, left_over, expected] :
       {Case{outer_and_a_b("0000000a") + "ff", 1},
        Case{outer_and_a_b("00000014") + "00000001 63 00000001 64", 0, {{"a", "b"}, {"c", "d"}}},
        Case{outer_and_a_b("00000014") + "ffffffffffffffffffff", 0},
        Case{outer_and_a_b("00000014") + "00000004616263640000", 0},
        Case{outer_and_a_b("00000014") + "0000000b616263646566", 0},
        Case{outer_and_a_b("00000014") + zeros(10), 0}, Case{"0000000a" + zeros(10), 0, {}},
        Case{outer_and_a_b("0000001c") + zeros(18), 0},
        Case{outer_and_a_b("0000001a") + zeros(16), 0, {{"", ""}, {"a", "b"}}},
        Case{"00000012" + zeros(8) + "00000001 63 00000001 64", 0, {{"", ""}, {"c", "d"}}}}) {
    const auto bytes = hex(payload);
    Cursor cursor{bytes};
    Map map;
    binding::decode(cursor, map);
    EXPECT_EQ(map, expected) << payload;
    EXPECT_EQ(cursor.remaining(), left_over) << payload;
  }
}

TEST(String_map, refuses_lengths_that_do_not_hold) {
  const auto decoding = [](const char* payload, const Serialization_settings& settings = {}) {
    const auto bytes = hex(payload);
    Cursor cursor{bytes};
    std::map<std::string, std::string> map;
    return error_of([&] { binding::decode(cursor, map, settings); });
  };
  EXPECT_THAT(decoding("00000004 00000001 61 00000001 62"),
              testing::HasSubstr("Record length given by sender is too small."));
  EXPECT_EQ(decoding("00000020 00000001 61"), bad_end);
  EXPECT_EQ(decoding("00000005 00000009 61"), beyond);
  EXPECT_EQ(decoding("00000001 00", {.string_length_field_size = 3}), bad_size);
}

}  // namespace
