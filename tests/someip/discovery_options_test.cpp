/// Which options of an entry a node uses, ignores or refuses.
#include "tests/someip/discovery_node.h"

namespace someip {
namespace {

const std::string own = "000904000a000002001107d0";  // 10.0.0.2, UDP, port 2000
constexpr std::uint32_t all_of(std::size_t count) {
  return static_cast<std::uint32_t>(count << 4);
}

/// An endpoint option of UDP.
std::string at(const std::string& address, const std::string& rest = "001107d0") {
  return "00090400" + address + rest;
}
/// A configuration option with these bytes behind the reserved one.
std::string configuration(const std::string& content) {
  char head[9];
  std::snprintf(head, sizeof head, "%04x0100", static_cast<unsigned>(content.size() / 2 + 1));
  return head + content;
}

TEST_F(Discovery_node, options_that_name_no_usable_endpoint_refuse_the_entry) {
  node.prefix_length = 24;
  offer();
  until(1000);
  ASSERT_TRUE(usable(own, all_of(1)));
  for (const auto& option :
       {std::string("000804000a000002001107"), own.substr(0, 3) + "a" + own.substr(4) + "00",
        std::string("000004"), at("0a000002", "000107d0"), at("0a000002", "008407d0"),
        at("0a000002", "00110000"), configuration("036b657900"),
        "00150600fd0000000000000000000000000000010011" + std::string("07d0"), at("0a010203"),
        at("00000000"), at("ffffffff"), at("ef010203"), at("0a0000ff"), at("0a000001")}) {
    EXPECT_FALSE(usable(option, all_of(1))) << option;
  }
  for (const auto& another : {at("0a000002", "001107d1"), at("0a00004d")}) {
    EXPECT_FALSE(usable(own + another, all_of(2))) << another;
    EXPECT_FALSE(usable(own + another, 0x000111)) << another;
  }
  for (const auto beyond : {0x010010U, 0x000020U, 0xFF00F0U, 0x0000F0U, 0x000111U, 0U})
    EXPECT_FALSE(usable(own, beyond)) << beyond;
  EXPECT_FALSE(usable("", all_of(1)));
  node.prefix_length = 0;
  for (const auto& option : {at("00000000"), at("ef010203"), at("0a000001"), at("00000007")})
    EXPECT_FALSE(usable(option, all_of(1))) << option;
}

TEST_F(Discovery_node, options_that_the_entry_does_not_need_are_ignored_unless_they_are_malformed) {
  node.prefix_length = 24;
  offer();
  until(1000);
  for (const auto& option :
       {configuration("096b65793d76616c756500"), configuration("036b657900"),
        configuration("046b65793d00"), configuration("00"),
        configuration("056b65793d61056b65793d6200"), configuration("0a6b65793d763d6d6f726500"),
        configuration("056b203dc3a400"), std::string("0005020000010002"),
        std::string("00097700616e797468696e67"), std::string("0001ff80"), std::string("000030"),
        "001115" + std::string(34, '0'),
        "00150600fd0000000000000000000000000000010011" + std::string("07d0"),
        at("0a000002", "000607d0"), own, std::string("00091400ef010203001107d0")}) {
    EXPECT_TRUE(usable(own + option, all_of(2))) << option;
    EXPECT_TRUE(usable(option + own, all_of(2))) << option;
    EXPECT_TRUE(usable(option + own, 0x000111)) << option;
    EXPECT_TRUE(usable(option + own, 0x010010)) << option;
    EXPECT_TRUE(usable(option + own, 0xFF0101)) << "the index of an empty run";
  }
  for (const auto& option :
       {configuration("096b65793d76616c7565"), configuration("063d76616c756500"),
        configuration("0961626300"), configuration("046b01793d00"),
        configuration("036b6579006d6f7265"), std::string("000001"),
        std::string("0009040000000000")}) {  // cut off at the end of the message
    EXPECT_FALSE(usable(own + option, all_of(2))) << option;
    EXPECT_TRUE(usable(own + option, all_of(1))) << "of another entry: " << option;
  }
}

TEST_F(Discovery_node, options_of_finds_do_not_matter_and_events_go_to_the_subscriber_itself) {
  offer();
  until(1000);
  for (const auto& option :
       {own, at("ef010203", "00110000"), configuration("036b657900"), std::string("000277003078")})
    EXPECT_EQ(says_raw(find(), option, all_of(1)), "1000 to 2: offer v1") << option;
  EXPECT_EQ(says_raw(find(), "", all_of(1)), "");
  EXPECT_EQ(says_raw(find(), own, 0x030020), "");
  EXPECT_EQ(counters.dropped_entries.value(), 2u);
  EXPECT_EQ(says_raw(wish(), at("0a000005"), all_of(1)), "1000 to 2: refuse v1/7");
  timing.subscriptions_for_others = true;
  EXPECT_NE(says_raw(wish(), at("0a000005"), all_of(1)).find("accept"), std::string::npos);
  // Only the endpoint that is used tells subscriptions apart.
  says_raw(wish(), own + at("0a000002", "000607d0"), all_of(2));
  EXPECT_EQ(says_raw(wish(0), own, all_of(1)), "1000 1 use v1/7");
  for (const auto& address : {"0a010203", "00000000", "ffffffff", "0a000001"}) {
    node.prefix_length = 24;
    EXPECT_EQ(says_raw(find(), std::string("00092400") + address + "0011771a", 0), "") << address;
  }
}

}  // namespace
}  // namespace someip
