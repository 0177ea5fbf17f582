#include "clients/position_selection.h"

#include <gmock/gmock.h>

#include <vector>

#include "tests/clients/printing.h"

namespace gnssClient {
namespace {

using binding::Value_type;
using Position = lumo::services::gnss::datatypes::DT_positions_struct;

Position of_type(boost::optional<std::uint32_t> type, std::uint32_t counter) {
  Position position;
  position.positionType = type;
  position.messageCounter = counter;
  return position;
}

TEST(Select, takes_the_last_sample_of_the_wanted_type_and_the_last_of_any_other_type) {
  const std::vector samples{of_type(1, 0), of_type(2, 1), of_type(boost::none, 2), of_type(1, 3),
                            of_type(2, 4), of_type(9, 5), of_type(boost::none, 6)};
  const auto gnss = select(samples, Position_type::gnss);
  EXPECT_EQ(gnss.chosen, &samples[3]);
  EXPECT_EQ(gnss.other, &samples[5]);
  const auto gnss_dr = select(samples, Position_type::gnss_dr);
  EXPECT_EQ(gnss_dr.chosen, &samples[4]);
  EXPECT_EQ(gnss_dr.other, &samples[5]);
}

using Quality = boost::optional<Value_type>;

TEST(Complete, takes_over_physical_values_for_those_that_are_not_and_for_no_others) {
  struct Case {
    boost::optional<float> chosen;
    Quality chosen_quality;
    boost::optional<float> other;
    Quality other_quality;
    boost::optional<float> expected;
    Quality expected_quality;
  };
  const auto none = boost::none;
  const Quality physical = Value_type::physical_value;
  const Quality error = Value_type::error;
  const Quality logical = Value_type::logical_value;
  const Quality unknown = static_cast<Value_type>(5);
  const std::vector<Case> cases{
      {1.0F, physical, 2.0F, physical, 1.0F, physical},
      {none, none, 2.0F, physical, 2.0F, physical},
      {none, physical, 2.0F, physical, 2.0F, physical},
      {1.0F, none, 2.0F, physical, 2.0F, physical},
      {1.0F, error, 2.0F, physical, 2.0F, physical},
      {1.0F, unknown, 2.0F, physical, 2.0F, physical},
      {1.0F, logical, 2.0F, physical, 2.0F, physical},
      {1.0F, error, 2.0F, logical, 1.0F, error},
      {1.0F, error, none, physical, 1.0F, error},
      {1.0F, error, 2.0F, none, 1.0F, error},
      {none, none, 2.0F, error, none, none},
      {none, error, 2.0F, unknown, none, error},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    Position chosen;
    chosen.speed2D = cases[i].chosen;
    chosen.speed2D_valueType = cases[i].chosen_quality;
    Position other;
    other.speed2D = cases[i].other;
    other.speed2D_valueType = cases[i].other_quality;
    complete(chosen, other);
    EXPECT_EQ(chosen.speed2D, cases[i].expected) << "case " << i;
    EXPECT_EQ(chosen.speed2D_valueType, cases[i].expected_quality) << "case " << i;
  }
}

TEST(Complete, covers_every_quantity_up_to_the_nanoseconds_but_not_the_type) {
  Position other;
  binding::for_each_member<Position>([&]<class Member>(const Member& member) {
    if constexpr (std::is_same_v<typename Member::value_type, Value_type>) {
      other.*member.pointer = Value_type::physical_value;
    } else {
      other.*member.pointer = static_cast<typename Member::value_type>(member.id + 100);
    }
  });
  Position chosen;
  complete(chosen, other);
  EXPECT_FALSE(chosen.positionType);
  chosen.positionType = other.positionType;
  binding::for_each_member<Position>([&](const auto& member) {
    EXPECT_EQ(chosen.*member.pointer, other.*member.pointer) << member.id << ' ' << member.name;
  });
}

}  // namespace
}  // namespace gnssClient
