#include <gmock/gmock.h>

#include <map>
#include <string>

#include "binding/codec.h"
#include "tests/binding/bytes.h"

namespace {

using binding::Buffer;
using binding::Cursor;
using binding::Serialization_settings;
using binding::Wire_type;
using test::hex;
using testing::ElementsAre;
using testing::Pair;
using testing::StrEq;
using testing::ThrowsMessage;

constexpr Serialization_settings defaults{};
constexpr Serialization_settings little_endian{.byte_order = binding::Byte_order::little_endian};

template <class Call>
std::string error_of(Call&& call) {
  try {
    call();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "no error";
}

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
  Buffer untouched = hex("aa");
  binding::write_length_field(0, 7, untouched, defaults);
  EXPECT_EQ(untouched, hex("aa"));
}

TEST(Length_field, refuses_other_sizes_and_values_that_do_not_fit) {
  Buffer buffer = hex("aa");
  for (const auto& [size, value] :
       std::map<std::uint64_t, std::uint64_t>{{1, 256}, {2, 65536}, {4, 0x1'0000'0000}}) {
    const auto write = [&buffer, s = size, v = value] {
      binding::write_length_field(s, v, buffer, defaults);
    };
    EXPECT_THAT(write, ThrowsMessage<std::overflow_error>(StrEq(
                           "Calculated record length does not fit into configured length field")));
  }
  for (const auto size : {3U, 5U, 8U}) {
    EXPECT_THAT(
        [&] { binding::write_length_field(size, 1, buffer, defaults); },
        ThrowsMessage<std::invalid_argument>(StrEq("Invalid value for length field size.")));
  }
  EXPECT_EQ(buffer, hex("aa"));
  const auto bytes = hex("00 00 00 00 00 00 00 00");
  for (const auto size : {0U, 3U, 8U}) {
    Cursor cursor{bytes};
    EXPECT_THAT(
        [&] { (void)binding::read_length_field(size, cursor, defaults); },
        ThrowsMessage<std::invalid_argument>(StrEq("Invalid value for length field size.")));
  }
}

TEST(Length_field, after_wire_type_4_needs_three_equal_sizes) {
  EXPECT_EQ(binding::length_field_size(Wire_type::bits_64, defaults), 0U);
  EXPECT_EQ(binding::length_field_size(Wire_type::length_8, defaults), 1U);
  EXPECT_EQ(binding::length_field_size(Wire_type::length_16, defaults), 2U);
  EXPECT_EQ(binding::length_field_size(Wire_type::length_32, defaults), 4U);
  const Serialization_settings twos{.array_length_field_size = 2,
                                    .string_length_field_size = 2,
                                    .structure_length_field_size = 2};
  EXPECT_EQ(binding::length_field_size(Wire_type::configured_length, twos), 2U);
  const Serialization_settings unequal{.array_length_field_size = 4,
                                       .string_length_field_size = 2,
                                       .structure_length_field_size = 4};
  EXPECT_THAT(
      [&] { (void)binding::length_field_size(Wire_type::configured_length, unequal); },
      ThrowsMessage<std::runtime_error>(StrEq(
          "Violation of COM.PRS_SOMEIP_00215: All length fields must have same size and not be 0 "
          "when wire type 4 is used (4,2,4)")));
  const Serialization_settings zeros{.array_length_field_size = 0,
                                     .string_length_field_size = 0,
                                     .structure_length_field_size = 0};
  EXPECT_THAT(
      error_of([&] { (void)binding::length_field_size(Wire_type::configured_length, zeros); }),
      testing::EndsWith("(0,0,0)"));
}

TEST(End_position, is_checked_before_anything_is_read) {
  EXPECT_EQ(binding::end_position(4, 10, 6), 10U);
  EXPECT_EQ(binding::end_position(4, 10, binding::no_length), 10U);
  EXPECT_THAT(
      [] { (void)binding::end_position(4, 10, 7); },
      ThrowsMessage<std::out_of_range>(StrEq("Deserialization calculated invalid end position.")));
  EXPECT_THAT(
      [] { (void)binding::end_position(4, 10, binding::no_length - 2); },
      ThrowsMessage<std::overflow_error>(StrEq("Deserialization detected std::size_t overflow.")));
}

TEST(Cursor_of_a_payload, never_leaves_its_range) {
  const auto bytes = hex("01 02 03");
  Cursor cursor{bytes};
  cursor.seek(3);
  EXPECT_THAT([&] { (void)cursor.read<std::uint8_t>(defaults.byte_order); },
              ThrowsMessage<std::out_of_range>(StrEq("Read beyond the end of the data buffer")));
  EXPECT_THAT([&] { cursor.seek(4); },
              ThrowsMessage<std::out_of_range>(StrEq("Seek beyond the end of the data buffer")));
  cursor.seek(0);
  EXPECT_THAT([&] { cursor.ensure_available(4); },
              ThrowsMessage<std::out_of_range>(StrEq("Read beyond the end of the data buffer")));
  EXPECT_THAT([&] { cursor.read(nullptr, 1); },
              ThrowsMessage<std::invalid_argument>(StrEq("destination cannot be NULL")));
  EXPECT_EQ(cursor.position(), 0U);
}

TEST(Values, travel_as_their_bit_pattern) {
  Buffer big;
  binding::encode(std::int32_t{-2}, big);
  binding::encode(1.0F, big);
  binding::encode(true, big);
  EXPECT_EQ(big, hex("ff ff ff fe 3f 80 00 00 01"));
  Buffer little;
  binding::encode(-2.5, little, little_endian);
  EXPECT_EQ(little, hex("00 00 00 00 00 00 04 c0"));
  Cursor cursor{little};
  double value = 0;
  binding::decode(cursor, value, little_endian);
  EXPECT_EQ(value, -2.5);
}

TEST(Byte_vector, has_a_length_field_even_at_the_top_level) {
  const std::vector<std::uint8_t> bytes{1, 2, 3};
  Buffer out;
  binding::encode(bytes, out);
  EXPECT_EQ(out, hex("00 00 00 03 01 02 03"));
  const Serialization_settings without{.array_length_field_size = 0};
  EXPECT_THAT([&] { binding::encode(bytes, out, without); },
              ThrowsMessage<std::invalid_argument>(
                  StrEq("Vectors must have a length field that deserializer can also deserialize "
                        "it. Violation of PRS_SOMEIP_00376 & PRS_SOMEIP_00107!")));
  EXPECT_EQ(out, hex("00 00 00 03 01 02 03"));
}

class String_map : public testing::Test {
 protected:
  static std::map<std::string, std::string> decode(const Buffer& bytes,
                                                   const Serialization_settings& settings = {}) {
    Cursor cursor{bytes};
    std::map<std::string, std::string> map;
    binding::decode(cursor, map, settings);
    left_over_ = cursor.remaining();
    return map;
  }
  static inline std::size_t left_over_ = 0;
};

TEST_F(String_map, round_trips_with_every_string_length_size) {
  const std::map<std::string, std::string> map{{"", ""},
                                               {"key", "value"},
                                               {"k\0"
                                                "y",
                                                "x"}};
  for (const auto size : {1U, 2U, 4U}) {
    const Serialization_settings settings{.string_length_field_size = size};
    Buffer bytes;
    binding::encode(map, bytes, settings);
    EXPECT_EQ(decode(bytes, settings), map) << size;
    EXPECT_EQ(left_over_, 0U);
  }
}

TEST_F(String_map, skips_what_the_outer_length_covers_beyond_its_entries) {
  // The surplus of ten bytes holds two more empty strings and two bytes: entries go on to the end.
  EXPECT_THAT(decode(hex("00 00 00 0a 00 00 00 01 61 00 00 00 01 62 ff")),
              ElementsAre(Pair("a", "b")));
  EXPECT_EQ(left_over_, 1U);
}

TEST_F(String_map, skips_a_surplus_that_is_no_entry) {
  for (const char* surplus :
       {"ffffffffffffffffffff", "00000004616263640000", "0000000b616263646566"}) {
    const auto bytes = hex(std::string{"00000014 00000001 61 00000001 62"} + surplus);
    EXPECT_THAT(decode(bytes), ElementsAre(Pair("a", "b"))) << surplus;
    EXPECT_EQ(left_over_, 0U);
  }
}

TEST_F(String_map, refuses_lengths_that_do_not_hold) {
  EXPECT_THAT([] { decode(hex("00 00 00 04 00 00 00 01 61 00 00 00 01 62")); },
              ThrowsMessage<std::out_of_range>(
                  StrEq("Violation of [PRS_SOMEIP_00900]: Record length given by sender is too "
                        "small. This is possibly due to a mismatch between the data models of "
                        "sender and receiver.")));
  EXPECT_EQ(error_of([] { decode(hex("00 00 00 20 00 00 00 01 61")); }),
            "Deserialization calculated invalid end position.");
  EXPECT_EQ(error_of([] { decode(hex("00 00 00 05 00 00 00 09 61")); }),
            "Read beyond the end of the data buffer");
  EXPECT_EQ(error_of([] {
              decode(hex("00 00 00 01 00"), Serialization_settings{.string_length_field_size = 3});
            }),
            "Invalid value for length field size.");
}

}  // namespace
