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

constexpr Serialization_settings defaults{};
constexpr Serialization_settings little_endian{.byte_order = binding::Byte_order::little_endian};

template <class Error, class Call>
void expect_error(const char* text, const Call& call) {
  EXPECT_THAT(call, testing::ThrowsMessage<Error>(testing::StrEq(text))) << text;
}
constexpr auto beyond = "Read beyond the end of the data buffer";
constexpr auto bad_end = "Deserialization calculated invalid end position.";
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
  binding::write_length_field(0, 7, buffer, defaults);
  for (const auto& [size, value] :
       std::map<std::uint64_t, std::uint64_t>{{1, 256}, {2, 65536}, {4, 0x1'0000'0000}}) {
    expect_error<std::overflow_error>(
        "Calculated record length does not fit into configured length field",
        [&, s = size, v = value] { binding::write_length_field(s, v, buffer, defaults); });
  }
  for (const auto size : {3U, 5U, 8U}) {
    expect_error<std::invalid_argument>(
        bad_size, [&] { binding::write_length_field(size, 1, buffer, defaults); });
  }
  EXPECT_EQ(buffer, hex("aa"));
  const auto bytes = hex("00 00 00 00 00 00 00 00");
  for (const auto size : {0U, 3U, 8U}) {
    expect_error<std::invalid_argument>(bad_size, [&] {
      Cursor cursor{bytes};
      (void)binding::read_length_field(size, cursor, defaults);
    });
  }
}

TEST(Length_field, after_wire_type_4_needs_three_equal_sizes) {
  const auto size = [](Wire_type type, std::uint8_t array, std::uint8_t string) {
    return binding::length_field_size(type, {.array_length_field_size = array,
                                             .string_length_field_size = string,
                                             .structure_length_field_size = array});
  };
  EXPECT_EQ(size(Wire_type::bits_64, 4, 4), 0U);
  EXPECT_EQ(size(Wire_type::length_8, 4, 4), 1U);
  EXPECT_EQ(size(Wire_type::length_16, 4, 4), 2U);
  EXPECT_EQ(size(Wire_type::length_32, 4, 4), 4U);
  EXPECT_EQ(size(Wire_type::configured_length, 2, 2), 2U);
  const std::string unequal =
      "Violation of COM.PRS_SOMEIP_00215: All length "
      "fields must have same size and not be 0 when "
      "wire type 4 is used ";
  expect_error<std::runtime_error>((unequal + "(4,2,4)").c_str(),
                                   [&] { (void)size(Wire_type::configured_length, 4, 2); });
  expect_error<std::runtime_error>((unequal + "(0,0,0)").c_str(),
                                   [&] { (void)size(Wire_type::configured_length, 0, 0); });
}

TEST(End_position, is_checked_before_anything_is_read) {
  EXPECT_EQ(binding::end_position(4, 10, 6), 10U);
  EXPECT_EQ(binding::end_position(4, 10, binding::no_length), 10U);
  expect_error<std::out_of_range>(bad_end, [] { (void)binding::end_position(4, 10, 7); });
  expect_error<std::overflow_error>("Deserialization detected std::size_t overflow.", [] {
    (void)binding::end_position(4, 10, binding::no_length - 2);
  });
}

TEST(Cursor_of_a_payload, never_leaves_its_range) {
  const auto bytes = hex("01 02 03");
  Cursor cursor{bytes};
  cursor.seek(3);
  expect_error<std::out_of_range>(beyond,
                                  [&] { (void)cursor.read<std::uint8_t>(defaults.byte_order); });
  expect_error<std::out_of_range>("Seek beyond the end of the data buffer",
                                  [&] { cursor.seek(4); });
  cursor.seek(0);
  expect_error<std::out_of_range>(beyond, [&] { cursor.ensure_available(4); });
  expect_error<std::invalid_argument>("destination cannot be NULL",
                                      [&] { cursor.read(nullptr, 1); });
  EXPECT_EQ(cursor.position(), 0U);
}

TEST(Values, travel_as_their_bit_pattern) {
  Buffer big;
  binding::encode(std::int32_t{-2}, big);
  binding::encode(1.0F, big);
  binding::encode(true, big);
  binding::encode(std::vector<std::uint8_t>{1, 2, 3}, big);
  EXPECT_EQ(big, hex("ff ff ff fe 3f 80 00 00 01 00 00 00 03 01 02 03"));
  expect_error<std::invalid_argument>(
      "Vectors must have a length field that deserializer can also deserialize "
      "it. Violation of "
      "PRS_SOMEIP_00376 & PRS_SOMEIP_00107!",
      [&] { binding::encode(std::vector<std::uint8_t>{1}, big, {.array_length_field_size = 0}); });
  Buffer little;
  binding::encode(-2.5, little, little_endian);
  EXPECT_EQ(little, hex("00 00 00 00 00 00 04 c0"));
  Cursor cursor{little};
  double value = 0;
  binding::decode(cursor, value, little_endian);
  EXPECT_EQ(value, -2.5);
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

TEST_F(String_map, skips_what_the_outer_length_covers_beyond_its_entries) {
  // The surplus of ten bytes holds two more empty strings and two bytes:
  // entries go on to the end.
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
  expect_error<std::out_of_range>(
      "Violation of [PRS_SOMEIP_00900]: Record length given by sender is too "
      "small. This is "
      "possibly due to a mismatch between the data models of sender and "
      "receiver.",
      [] { decode(hex("00 00 00 04 00 00 00 01 61 00 00 00 01 62")); });
  expect_error<std::out_of_range>(bad_end, [] { decode(hex("00 00 00 20 00 00 00 01 61")); });
  expect_error<std::out_of_range>(beyond, [] { decode(hex("00 00 00 05 00 00 00 09 61")); });
  expect_error<std::invalid_argument>(
      bad_size, [] { decode(hex("00 00 00 01 00"), {.string_length_field_size = 3}); });
}

}  // namespace
