#include "app/conversion.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "tests/clients/printing.h"

namespace {

using binding::Value_type;
using Gnss = lumo::services::gnss::datatypes::DT_positions_struct;
using Output = lumo::services::positioning::datatypes::DT_positions_struct;

constexpr Output_defaults defaults{2, 1, 2, 2, 2, 1, 0};

/// The present members of a record by name.
std::map<std::string, double> present(const Output& output) {
  std::map<std::string, double> members;
  binding::for_each_member<Output>([&](const auto& member) {
    if (const auto& value = output.*member.pointer)
      members.emplace(member.name, static_cast<double>(*value));
  });
  return members;
}

const std::map<std::string, double> only_statuses{
    {"statusPosition", 2}, {"statusAltitude", 1}, {"statusYawAngle", 2},   {"statusSpeed", 2},
    {"statusAttitude", 2}, {"statusTime", 1},     {"statusMapMatching", 0}};

/// Every member present, the quantities with this quality; values are the data IDs.
Gnss full(boost::optional<Value_type> quality) {
  Gnss gnss;
  binding::for_each_member<Gnss>([&]<class Member>(const Member& member) {
    if constexpr (std::is_same_v<typename Member::value_type, Value_type>) {
      gnss.*member.pointer = quality;
    } else {
      gnss.*member.pointer = static_cast<typename Member::value_type>(member.id);
    }
  });
  return gnss;
}

TEST(To_positioning, carries_every_physical_quantity_under_its_own_name_but_not_the_type) {
  auto expected = only_statuses;
  expected["messageCounter"] = 1;
  binding::for_each_quantity<Gnss>([&](const auto& quantity) {
    expected[std::string{quantity.value.name}] = quantity.value.id;
  });
  EXPECT_EQ(expected.size(), 7U + 1U + 21U);
  EXPECT_EQ(present(to_positioning(full(Value_type::physical_value), defaults)), expected);
}

TEST(To_positioning, leaves_out_what_is_not_physical_but_not_the_counter) {
  auto expected = only_statuses;
  expected["messageCounter"] = 1;
  for (const unsigned number : {1U, 2U, 3U, 5U}) {
    const Value_type quality{number};
    EXPECT_EQ(present(to_positioning(full(quality), defaults)), expected) << quality;
  }
  EXPECT_EQ(present(to_positioning(full(boost::none), defaults)), expected);
  Gnss quality_alone;
  quality_alone.LAT_valueType = Value_type::physical_value;
  EXPECT_EQ(present(to_positioning(quality_alone, defaults)), only_statuses);
}

}  // namespace
