#include <gmock/gmock.h>

#include <algorithm>

#include "binding/codec.h"
#include "clients/GnssRecords.h"
#include "clients/TimeRecords.h"
#include "posService/PositioningRecords.h"

namespace test_lists {

struct Outer {
  boost::optional<std::vector<lumo::services::gnss::datatypes::DT_posGnssSatInfos_struct>> list;
};

}  // namespace test_lists

template <>
struct binding::Description<test_lists::Outer> {
  static constexpr std::string_view name = "Outer";
  static constexpr auto entries = std::tuple{member(1, "list", &test_lists::Outer::list)};
};

namespace {

using test_lists::Outer;
namespace gnss = lumo::services::gnss::datatypes;
namespace positioning = lumo::services::positioning::datatypes;

template <class Record>
class Full_records : public testing::Test {
 protected:
  static constexpr auto memory_size = sizeof(Record);
  static constexpr auto wire_size = binding::detail::Forms<Record>::wire_size;

  /// Every byte of every value differs from those around it.
  Record full_record() {
    Record record;
    binding::for_each_member<Record>([&]<class M>(const M& member) {
      std::array<std::uint8_t, sizeof(typename M::value_type)> bytes;
      for (auto& byte : bytes)
        byte = (next_ += 37);
      record.*member.pointer = std::bit_cast<typename M::value_type>(bytes);
    });
    return record;
  }
  std::vector<Record> full_records(std::size_t count) {
    std::vector<Record> records(count);
    std::ranges::generate(records, [this] { return full_record(); });
    return records;
  }
  /// One member after the other.
  static std::vector<std::byte> encoded(const std::vector<Record>& records) {
    std::vector<std::byte> bytes(records.size() * wire_size + binding::write_slack);
    auto* to = bytes.data();
    for (const auto& record : records)
      to = binding::write_nested(record, to, {});
    bytes.resize(static_cast<std::size_t>(to - bytes.data()));
    return bytes;
  }

 private:
  std::uint8_t next_ = 0;
};

using Records = testing::Types<gnss::DT_positions_struct,
                               gnss::DT_posGnssSatInfos_struct,
                               positioning::DT_positions_struct>;
TYPED_TEST_SUITE(Full_records, Records);

TYPED_TEST(Full_records, have_the_assumed_form_in_memory) {
  EXPECT_TRUE(binding::detail::moves_are_right<TypeParam>());
}

TYPED_TEST(Full_records, move_like_members_one_by_one) {
  using namespace binding::detail;
  constexpr auto at_once = records_at_once<TypeParam>;
  for (std::size_t count = at_once; count <= 3 * at_once + 1; ++count) {
    const auto records = this->full_records(count);
    const auto expected = this->encoded(records);
    // No byte more than needed, so that the address sanitizer sees a step beyond.
    std::vector<std::byte> wire(expected.size());
    ASSERT_EQ(binding::move_records(moves_to_wire<TypeParam>,
                                    reinterpret_cast<const std::byte*>(records.data()), wire.data(),
                                    count),
              count);
    EXPECT_EQ(wire, expected);
    std::vector<TypeParam> back(count);
    ASSERT_EQ(binding::move_records(moves_to_memory<TypeParam>, wire.data(),
                                    reinterpret_cast<std::byte*>(back.data()), count),
              count);
    EXPECT_EQ(this->encoded(back), expected);
  }
}

TYPED_TEST(Full_records, are_told_from_those_that_lack_a_member_wherever_it_is) {
  const auto records = this->full_records(binding::detail::records_at_once<TypeParam> + 1);
  for (std::size_t position = 0; position < records.size(); ++position) {
    binding::for_each_member<TypeParam>([&](const auto& member) {
      auto changed = records;
      changed[position].*member.pointer = boost::none;
      binding::Buffer payload;
      binding::encode(changed, payload);
      EXPECT_TRUE(std::ranges::equal(std::span{payload}.subspan(4), this->encoded(changed)));
      std::vector<TypeParam> back(3, records.back());
      binding::Cursor cursor{payload};
      binding::decode(cursor, back);
      EXPECT_EQ(this->encoded(back), this->encoded(changed));
      EXPECT_FALSE((back.at(position).*member.pointer).has_value());
    });
  }
}

TYPED_TEST(Full_records, are_told_from_those_with_any_other_tag_or_length) {
  using namespace binding::detail;
  constexpr auto count = records_at_once<TypeParam>;
  const auto wire = this->encoded(this->full_records(count));
  const Forms<TypeParam> forms;
  for (std::size_t i = 0; i < wire.size(); ++i) {
    for (unsigned bit = 1; bit < 256; bit *= 2) {
      auto changed = wire;
      changed[i] ^= static_cast<std::byte>(bit);
      std::array<TypeParam, count> records;
      const auto moved = binding::move_records(moves_to_memory<TypeParam>, changed.data(),
                                               reinterpret_cast<std::byte*>(records.data()), count);
      const bool counts = (forms.required_on_wire.at(i % TestFixture::wire_size).mask & bit) != 0;
      EXPECT_EQ(moved, counts ? 0 : count) << "byte " << i << " bit " << bit;
    }
  }
  // The length field, and a tag but for its reserved bit.
  EXPECT_EQ(forms.required_on_wire[0].mask, 0xFF);
  EXPECT_EQ(forms.required_on_wire[4].mask, 0x7F);
  EXPECT_EQ(forms.required_on_wire[5].mask, 0xFF);
}

TEST(Lists_of_records, touch_nothing_behind_what_they_need_as_a_member) {
  Outer outer;
  outer.list.emplace(8);
  binding::Buffer scratch(4096, std::byte{0xEE});
  const auto size = binding::encode_into(outer, scratch).size();
  EXPECT_EQ(size, 2 + 4 + 8 * 4);
  const auto behind = std::span{scratch}.subspan(size + binding::write_slack);
  EXPECT_TRUE(std::ranges::all_of(behind, [](auto byte) { return byte == std::byte{0xEE}; }));
}

}  // namespace
