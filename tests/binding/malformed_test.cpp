/// What a sender with a fault, an older or newer data model or bad intentions can put into a
/// positions notification: each either decodes to what it says or is refused with the reason.
#include <gmock/gmock.h>

#include "binding/codec.h"
#include "clients/gnss_records.h"
#include "tests/binding/bytes.h"
#include "tests/support/error_of.h"

namespace {

using lumo::services::gnss::datatypes::DT_positions_struct;
using test::bad_end;
using test::beyond;
using test::hex;
using test::notification;

constexpr auto too_small =
    "Violation of [PRS_SOMEIP_00900]: Record length given by sender is too small. This is possibly "
    "due to a mismatch between the data models of sender and receiver.";
constexpr auto bad_wire_type = "Invalid source tag wire type";
constexpr auto accepted = "no exception";

constexpr auto counter = "2001 00000007";
constexpr auto latitude = "3002 4048000000000000";

struct Case {
  const char* what;
  binding::Buffer payload;
  const char* error;        ///< or that it is accepted
  std::size_t records = 0;  ///< when accepted
  bool has_latitude = false;
};

binding::Buffer one(const std::string& record) {
  return notification({hex(record)});
}

std::vector<Case> cases() {
  const std::string c = counter;
  const std::string l = latitude;
  std::vector<Case> table{
      {"no byte at all", {}, beyond},
      {"an empty vector", hex("00000000"), accepted, 0},
      {"an empty vector and a surplus", hex("00000000 ffff"), accepted, 0},
      {"vector length one too long", hex("00000001"), bad_end},
      {"vector length of all ones", hex("ffffffff 00000000"), bad_end},
      {"vector of one, two, three bytes: a torn record length", hex("00000003 000000"), beyond},
      {"three empty records", notification({{}, {}, {}}), accepted, 3},
      {"record length one too long", hex("00000004 00000001"), bad_end},
      {"record length of all ones", hex("00000004 ffffffff"), bad_end},
      {"record length behind the vector, within the datagram",
       hex("00000004 00000006 2001 00000007"), too_small},
      {"one member", one(c), accepted, 1},
      {"two records", notification({hex(c), hex(l)}), accepted, 2, true},
      {"a tag without value", one("2001"), beyond},
      {"a value cut by one byte", one("2001 000000"), beyond},
      {"record length that ends inside a value", hex("0000000a 00000005 2001 00000007"), too_small},
      {"a tag split between a record and the next", hex("0000000e 00000001 2001 00000007 00000000"),
       too_small},
      {"latitude with wire type 2", one("2002 40480000"), bad_wire_type},
      {"latitude with wire type 4", one("4002 00000008 4048000000000000"), bad_wire_type},
      {"counter with wire type 3", one("3001 0000000000000007"), bad_wire_type},
      {"a wrong wire type behind good members", one(c + l + "2004 00000000"), bad_wire_type},
      {"reserved bit set", one("a001 00000007"), accepted, 1},
      {"unknown ID of one byte", one("0fff 00" + l), accepted, 1, true},
      {"unknown ID of eight bytes", one("3064 0000000000000000" + l), accepted, 1, true},
      {"unknown ID with one length byte", one("5064 03 ffffff" + l), accepted, 1, true},
      {"unknown ID with two length bytes", one("6064 0000" + l), accepted, 1, true},
      {"unknown ID with four length bytes", one("4064 00000001 ff" + l), accepted, 1, true},
      {"unknown ID behind everything", one(l + "2064 00000000"), accepted, 1, true},
      {"unknown ID cut short", one("3064 00000000"), beyond},
      {"unknown ID with a giant length", one("7064 ffffffff" + l), beyond},
      {"unknown ID whose length field is cut", one("6064 00"), beyond},
      {"unknown ID that crosses its record's end", hex("0000000e 00000005 5064 03 ffffff 00000000"),
       too_small},
      {"members in descending order", one(l + c), accepted, 1, true},
      {"a member sent twice: the last counts", one("3002 4049000000000000" + l), accepted, 1, true},
      {"a member sent twice with another between", one(l + c + l), accepted, 1, true},
      {"a member behind the last one", one("202b 00000004" + l), accepted, 1, true},
      {"zeros behind a member, no member that was passed", one(l + "0000"), accepted, 1, true},
      {"a passed member of the wrong wire type", one(l + "3001 00"), accepted, 1, true},
      {"a passed member cut by the record's end", one(l + "2001 0000"), accepted, 1, true},
      {"valueType without its value", one("2003 00000004"), accepted, 1},
      {"valueType of no known meaning", one("2003 ffffffff"), accepted, 1},
      {"a second record cut short", hex("00000010 00000006 2001 00000007 00000006 2001"), bad_end},
      {"surplus behind the vector", one(c + l), accepted, 1, true},
  };
  table.back().payload.push_back(std::byte{0xEE});
  return table;
}

TEST(A_positions_payload, is_accepted_or_refused_with_its_reason) {
  std::vector<DT_positions_struct> records;
  for (const auto& c : cases()) {
    binding::Cursor cursor{c.payload};
    const auto error = test::error_of([&] { binding::decode(cursor, records); });
    EXPECT_EQ(error, c.error) << c.what;
    if (error != accepted) continue;
    EXPECT_EQ(records.size(), c.records) << c.what;
    if (!records.empty()) {
      EXPECT_EQ(records.back().LAT.has_value(), c.has_latitude) << c.what;
      EXPECT_EQ(records.back().LAT.get_value_or(48.0), 48.0) << c.what;
    }
  }
}

TEST(A_surplus_behind_the_last_member, is_skipped_whatever_its_bytes_are) {
  DT_positions_struct full;
  unsigned number = 0;
  binding::for_each_member<DT_positions_struct>([&]<class M>(const M& member) {
    full.*member.pointer = static_cast<typename M::value_type>(++number);
  });
  binding::Buffer complete;
  binding::encode(full, complete);
  std::vector surpluses{hex("4fff ffffffff"), hex("2001 0000")};
  for (std::size_t size = 1; size <= 12; ++size) {
    for (const auto byte : {0x00, 0xFF, 0xEE})
      surpluses.emplace_back(size, static_cast<std::byte>(byte));
  }
  auto behind_all_members = surpluses;
  behind_all_members.push_back(hex("2001 00000007"));
  for (const auto& [record, possible] :
       {std::pair{complete, behind_all_members}, std::pair{hex("202b 0000002c"), surpluses}}) {
    for (const auto& surplus : possible) {
      auto longer = record;
      longer.insert(longer.end(), surplus.begin(), surplus.end());
      const auto payload = notification({longer, record});
      std::vector<DT_positions_struct> records;
      binding::Cursor cursor{payload};
      ASSERT_EQ(test::error_of([&] { binding::decode(cursor, records); }), accepted);
      for (const auto& back : records) {
        binding::Buffer again;
        binding::encode(back, again);
        EXPECT_EQ(again, record);
      }
    }
  }
}

}  // namespace
