#include <gmock/gmock.h>

#include "binding/codec.h"
#include "clients/gnss_records.h"
#include "clients/time_records.h"
#include "posService/positioning_records.h"
#include "tests/binding/bytes.h"
#include "tests/clients/printing.h"
#include "tests/support/error_of.h"

namespace test_records {

struct Message {
  boost::optional<std::string> text;
  boost::optional<std::uint16_t> number;
  boost::optional<std::vector<std::uint8_t>> blob;
};

/// Travels with settings of its own.
struct Apart {
  boost::optional<std::uint16_t> number;
  boost::optional<std::string> text;
};
struct Around {
  boost::optional<std::uint16_t> number;
  boost::optional<Apart> apart;
};

struct One_id_twice {
  boost::optional<bool> truth;
};
struct Id_too_large {
  boost::optional<std::uint8_t> value;
  boost::optional<binding::Value_type> value_type;
};

}  // namespace test_records

template <>
struct binding::Description<test_records::Message> {
  static constexpr std::string_view name = "Message";
  static constexpr auto entries = std::tuple{member(0, "text", &test_records::Message::text),
                                             member(7, "number", &test_records::Message::number),
                                             member(1, "blob", &test_records::Message::blob)};
};

template <>
struct binding::Description<test_records::Apart> {
  static constexpr std::string_view name = "Apart";
  static constexpr auto entries = std::tuple{member(0, "number", &test_records::Apart::number),
                                             member(1, "text", &test_records::Apart::text)};
};
template <>
inline constexpr binding::Serialization_settings binding::settings_of<test_records::Apart>{
    .byte_order = Byte_order::little_endian,
    .array_length_field_size = 2,
    .string_length_field_size = 2,
    .structure_length_field_size = 2};
template <>
struct binding::Description<test_records::Around> {
  static constexpr std::string_view name = "Around";
  static constexpr auto entries = std::tuple{member(0, "number", &test_records::Around::number),
                                             member(1, "apart", &test_records::Around::apart)};
};
template <>
struct binding::Description<test_records::One_id_twice> {
  static constexpr std::string_view name = "One_id_twice";
  static constexpr auto entries = std::tuple{member(7, "a", &test_records::One_id_twice::truth),
                                             member(7, "b", &test_records::One_id_twice::truth)};
};
template <>
struct binding::Description<test_records::Id_too_large> {
  using Record = test_records::Id_too_large;
  static constexpr std::string_view name = "Id_too_large";
  static constexpr auto entries =
      std::tuple{quantity(4095, "value", &Record::value, &Record::value_type)};
};

static_assert(binding::has_valid_ids<test_records::Message>);
static_assert(!binding::has_valid_ids<test_records::One_id_twice>);
static_assert(!binding::has_valid_ids<test_records::Id_too_large>);

namespace {

using binding::Buffer;
using binding::Cursor;
using test::hex;

template <class T>
T decoded(const Buffer& bytes) {
  Cursor cursor{bytes};
  T value{};
  binding::decode(cursor, value);
  EXPECT_EQ(cursor.remaining(), 0U);
  return value;
}
template <class T>
Buffer encoded(const T& value) {
  Buffer bytes;
  binding::encode(value, bytes);
  return bytes;
}

/// Sets every member to a value of its own, so that a swapped pair shows.
template <class Record>
Record filled() {
  Record record;
  unsigned number = 0;
  binding::for_each_member<Record>([&]<class M>(const M& m) {
    ++number;
    using Value = typename M::value_type;
    if constexpr (binding::Scalar<Value>) {
      record.*m.pointer = static_cast<Value>(number);
    } else {
      record.*m.pointer = Value{"text"};
    }
  });
  return record;
}

template <class Record>
class Every_record : public testing::Test {};
namespace gnss = lumo::services::gnss::datatypes;
namespace time_service = lumo::services::time::datatypes;
namespace positioning = lumo::services::positioning::datatypes;
using Records = testing::Types<gnss::DT_positions_struct,
                               gnss::DT_positionsQuality_struct,
                               gnss::DT_posGnssSatInfos_struct,
                               time_service::DT_times_struct,
                               time_service::DT_timeSettings_struct,
                               positioning::DT_positions_struct,
                               positioning::DT_posMapInfo_struct>;
TYPED_TEST_SUITE(Every_record, Records);

TYPED_TEST(Every_record, round_trips_with_any_members_in_any_order_into_a_used_slot) {
  const auto full = filled<TypeParam>();
  const auto wire = encoded(full);
  EXPECT_EQ(encoded(decoded<TypeParam>(wire)), wire);
  Buffer reversed;
  binding::for_each_member<TypeParam>([&](const auto& m) {
    TypeParam one;
    one.*m.pointer = full.*m.pointer;
    const auto bytes = encoded(one);
    EXPECT_EQ(decoded<TypeParam>(bytes).*m.pointer, one.*m.pointer) << m.name;
    EXPECT_EQ(encoded(decoded<TypeParam>(bytes)), bytes) << m.name;
    reversed.insert(reversed.begin(), bytes.begin(), bytes.end());
  });
  EXPECT_EQ(encoded(decoded<TypeParam>(reversed)), wire);

  auto slot = full;
  Cursor cursor{{}};
  binding::decode(cursor, slot);
  EXPECT_TRUE(encoded(slot).empty());
}

TYPED_TEST(Every_record, takes_the_memory_of_its_elements_in_the_longest_list_of_empty_ones) {
  constexpr std::size_t most = binding::max_list_bytes / sizeof(TypeParam);
  const auto decoded_into = [](std::vector<TypeParam>& records, std::size_t count, bool cut) {
    Buffer payload;
    binding::write_length_field(4, 4 * count, payload, {});
    payload.resize(payload.size() + 4 * count);
    if (cut) payload.back() = std::byte{1};
    Cursor cursor{payload};
    return test::error_of([&] { binding::decode(cursor, records); });
  };
  for (const bool last_is_cut : {false, true}) {
    std::vector<TypeParam> records(10);
    EXPECT_EQ(decoded_into(records, most, last_is_cut) == "no exception", !last_is_cut);
    EXPECT_EQ(records.capacity(), most);
  }
  std::vector<TypeParam> records(10);
  EXPECT_EQ(decoded_into(records, most + 1, false),
            "The elements of a list take more memory than a list may have");
  EXPECT_EQ(records.capacity(), 10U);
}

TEST(Settings, are_those_of_each_type_wherever_it_travels) {
  const test_records::Apart apart{.number = 0x0102, .text = std::string{"hi"}};
  const std::vector list{apart};
  EXPECT_EQ(encoded(list), hex("0000000c 0a00 1000 0201 4001 0200 6869"));
  EXPECT_EQ(encoded(decoded<std::vector<test_records::Apart>>(encoded(list))), encoded(list));
  const test_records::Around around{.number = 0x0102, .apart = apart};
  EXPECT_EQ(encoded(around), hex("1000 0102 4001 0000000a 1000 0201 4001 0200 6869"));
  EXPECT_EQ(encoded(decoded<test_records::Around>(encoded(around))), encoded(around));
}

TEST(Positions_payload, has_a_length_field_per_record_and_one_for_the_vector) {
  gnss::DT_positions_struct position;
  position.messageCounter = 0x01020304;
  position.LAT = -0.5;
  position.LAT_valueType = binding::Value_type::physical_value;
  EXPECT_EQ(encoded(std::vector{position, gnss::DT_positions_struct{}}),
            hex("0000001e 00000016 2001 01020304 3002 bfe0000000000000 2003 00000004 00000000"));
}

TEST(Tlv_members, accept_any_length_field_wire_type_for_each_other) {
  for (const auto* sent :
       {"4000 00000002 6869", "5000 02 6869", "6000 0002 6869", "7000 00000002 6869"}) {
    EXPECT_EQ(*decoded<test_records::Message>(hex(sent)).text, "hi") << sent;
  }
  const auto message = decoded<test_records::Message>(hex("e000 0002 6869 1007 1234 5001 01 ff"));
  EXPECT_EQ(*message.text, "hi") << "the reserved bit does not count";
  EXPECT_EQ(*message.number, 0x1234);
  EXPECT_EQ(message.blob->at(0), 0xFF);
}

}  // namespace
