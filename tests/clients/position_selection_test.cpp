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
  if (type) position.positionType = lumo::services::Position_type{*type};
  position.messageCounter = counter;
  return position;
}

TEST(Select, takes_the_last_sample_of_the_wanted_type_and_the_last_of_any_other_type) {
  const std::vector samples{of_type(1, 0), of_type(2, 1), of_type(boost::none, 2), of_type(1, 3),
                            of_type(2, 4), of_type(9, 5), of_type(boost::none, 6)};
  const auto gnss = select(samples, lumo::services::Position_type::gnss);
  EXPECT_EQ(gnss.chosen, &samples[3]);
  EXPECT_EQ(gnss.other, &samples[5]);
  const auto gnss_dr = select(samples, lumo::services::Position_type::gnss_dr);
  EXPECT_EQ(gnss_dr.chosen, &samples[4]);
  EXPECT_EQ(gnss_dr.other, &samples[5]);
}

TEST(Complete, takes_over_physical_values_for_those_that_are_not_and_for_no_others) {
  struct Quantity {
    boost::optional<float> value;
    boost::optional<Value_type> quality;
  };
  struct Case {
    Quantity chosen, other, expected;
  };
  const auto none = boost::none;
  using enum Value_type;
  constexpr Value_type unknown{5};
  const Quantity good{2.0F, physical_value};
  for (const auto& [chosen, other, expected] : {
           Case{{1.0F, physical_value}, good, {1.0F, physical_value}},
           {{none, none}, good, good},
           {{none, physical_value}, good, good},
           {{1.0F, none}, good, good},
           {{1.0F, unknown}, good, good},
           {{1.0F, logical_value}, good, good},
           {{1.0F, error}, {2.0F, logical_value}, {1.0F, error}},
           {{1.0F, error}, {none, physical_value}, {1.0F, error}},
           {{none, none}, {2.0F, none}, {none, none}},
           {{none, error}, {2.0F, unknown}, {none, error}},
       }) {
    Position position;
    position.speed2D = chosen.value;
    position.speed2D_valueType = chosen.quality;
    Position source;
    source.speed2D = other.value;
    source.speed2D_valueType = other.quality;
    complete(position, source);
    EXPECT_EQ(position.speed2D, expected.value);
    EXPECT_EQ(position.speed2D_valueType, expected.quality);
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
