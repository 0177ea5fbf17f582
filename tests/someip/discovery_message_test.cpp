#include "platform/someip/discovery_message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/someip/hex.h"

namespace someip {
namespace {

using test::hex;

const Endpoint udp_endpoint{boost::asio::ip::make_address("10.0.0.1"), 30501};
const Endpoint tcp_endpoint{boost::asio::ip::make_address("10.0.0.1"), 30502};
const Endpoint v6_endpoint{boost::asio::ip::make_address("fd00::1"), 30503};
const Endpoint group{boost::asio::ip::make_address("239.0.0.5"), 30600};

/// Flags, entries and options put together with their lengths.
std::vector<std::byte> payload(const std::string& entries, const std::string& options) {
  auto bytes = hex("E0000000 00000000");
  const auto entry_bytes = hex(entries);
  const auto option_bytes = hex(options);
  store32(bytes.data() + 4, static_cast<std::uint32_t>(entry_bytes.size()));
  bytes.insert(bytes.end(), entry_bytes.begin(), entry_bytes.end());
  bytes.resize(bytes.size() + 4);
  store32(bytes.data() + bytes.size() - 4, static_cast<std::uint32_t>(option_bytes.size()));
  bytes.insert(bytes.end(), option_bytes.begin(), option_bytes.end());
  return bytes;
}

Entry offer() {
  Entry entry;
  entry.type = Entry_type::offer_service;
  entry.service = 0x1234;
  entry.instance = 0x0002;
  entry.major_version = 3;
  entry.minor_version = 0x01020304;
  entry.ttl = 0x00ABCD;
  return entry;
}

// An offer whose runs are filled in: "i1 i2 counts".
std::string offer_with(const std::string& runs) {
  return "01" + runs + "12340002 03 000003 00000000";
}
std::string subscribe_with(const std::string& runs) {
  return "06" + runs + "12340002 03 000003 0000 0001";
}
const std::string udp_option = "0009 04 00 0A000001 00 11 7725";
const std::string other_udp_option = "0009 04 00 0A000001 00 11 7726";
const std::string tcp_option = "0009 04 00 0A000001 00 06 7726";
const std::string unknown_option = "0003 77 00 0102";
const std::string multicast_option = "0009 14 00 EF000005 00 11 7788";

TEST(Discovery_message, comes_back_from_the_wire_as_it_was_written) {
  Entry ack;
  ack.type = Entry_type::subscribe_ack;
  ack.service = 0x1234;
  ack.instance = 2;
  ack.major_version = 3;
  ack.event_group = 0x0102;
  ack.flags = 0x1285;
  ack.ttl = endless_ttl;

  Discovery_writer writer;
  ASSERT_TRUE(writer.add(offer(), {Option::unicast(udp_endpoint, udp_protocol),
                                   Option::unicast(tcp_endpoint, tcp_protocol)}));
  ASSERT_TRUE(writer.add(ack, {Option::multicast(group)}));
  ASSERT_TRUE(writer.add(offer(), {Option::unicast(udp_endpoint, udp_protocol)}));
  const auto bytes = writer.message(77, true);

  Datagram_reader reader(bytes);
  const auto view = reader.next();
  ASSERT_TRUE(view);
  EXPECT_EQ(view->header.service, 0xFFFF);
  EXPECT_EQ(view->header.method, 0x8100);
  EXPECT_EQ(view->header.client, 0);
  EXPECT_EQ(view->header.session, 77);
  EXPECT_EQ(view->header.interface_version, 1);
  EXPECT_EQ(view->header.type, 0x02);
  EXPECT_EQ(view->payload[0], std::byte{0xE0});

  const auto message = read_discovery_message(view->payload, 100);
  ASSERT_TRUE(message);
  ASSERT_EQ(message->entries.size(), 3u);
  EXPECT_EQ(message->options.size(), 3u) << "an option that is used twice is stored once";
  EXPECT_TRUE(message->reboot && message->unicast && message->explicit_initial_data);
  EXPECT_EQ(message->entries[0].minor_version, offer().minor_version);
  EXPECT_EQ(message->entries[0].ttl, offer().ttl);
  EXPECT_EQ(message->entries[1].flags, ack.flags);
  EXPECT_TRUE(message->entries[1].initial_data_requested());
  EXPECT_EQ(message->entries[1].counter(), 5);
  const auto offered = message->options_of(message->entries[0], true);
  EXPECT_FALSE(offered.fault);
  EXPECT_EQ(offered.udp, udp_endpoint);
  EXPECT_EQ(offered.tcp, tcp_endpoint);
  EXPECT_EQ(message->options_of(message->entries[1], true).multicast, group);
  EXPECT_EQ(message->options_of(message->entries[2], true).udp, udp_endpoint);
}

TEST(Discovery_message, options_are_judged_entry_by_entry) {
  struct Case {
    const char* name;
    std::string entry;
    std::string options;
    bool fault;
    bool udp, tcp;
  };
  const Case cases[] = {
      {"one option", offer_with("00 00 10"), udp_option, false, true, false},
      {"two runs", offer_with("00 01 11"), udp_option + tcp_option, false, true, true},
      {"one run of two", offer_with("00 00 20"), udp_option + tcp_option, false, true, true},
      {"empty runs with an index (someipsd_347)", offer_with("05 FF 00"), udp_option, false, false,
       false},
      {"the same option twice", offer_with("00 00 11"), udp_option, false, true, false},
      {"two equal options", offer_with("00 00 20"), udp_option + udp_option, false, true, false},
      {"unknown option (someipsd_1142)", offer_with("00 00 20"), unknown_option + udp_option, false,
       true, false},
      {"multicast is not for offers (someipsd_1141)", offer_with("00 00 20"),
       multicast_option + udp_option, false, true, false},
      {"index beyond", offer_with("01 00 10"), udp_option, true, false, false},
      {"count beyond", offer_with("00 00 20"), udp_option, true, false, false},
      {"second run beyond", offer_with("00 09 11"), udp_option, true, true, false},
      {"two UDP ports (someipsd_1144)", offer_with("00 00 20"), udp_option + other_udp_option, true,
       true, false},
      {"wrong length", offer_with("00 00 10"), "0008 04 00 0A000001 00 11 77", true, false, false},
      {"length of the other family", offer_with("00 00 10"),
       "0015 04 00 0A000001 00 11 7725 000000000000000000000000", true, false, false},
      {"unknown protocol", offer_with("00 00 10"), "0009 04 00 0A000001 00 12 7725", true, false,
       false},
      {"port 0", offer_with("00 00 10"), "0009 04 00 0A000001 00 11 0000", true, false, false},
      {"multicast address as endpoint", offer_with("00 00 10"), "0009 04 00 EF000005 00 11 7725",
       true, false, false},
      {"cut option", offer_with("00 00 10"), "0009 04 00 0A000001 00", true, false, false},
      {"IPv6 beside IPv4", offer_with("00 00 20"),
       udp_option + "0015 06 00 FD000000000000000000000000000001 00 11 7727", false, true, false},
      {"load balancing", offer_with("00 00 20"), udp_option + "0005 02 00 0001 0002", false, true,
       false},
      {"bad load balancing", offer_with("00 00 20"), udp_option + "0004 02 00 0001 00", true, true,
       false},
      {"configuration", subscribe_with("00 00 20"), udp_option + "0006 01 00 03613D62 00", false,
       true, false},
      {"configuration without end", subscribe_with("00 00 20"), udp_option + "0005 01 00 03613D62",
       true, true, false},
      {"discovery endpoint is not the entry's", subscribe_with("00 00 20"),
       "0009 24 00 0A000009 00 11 771A" + udp_option, false, true, false},
  };
  for (const auto& one : cases) {
    const auto message = read_discovery_message(payload(one.entry, one.options), 10);
    ASSERT_TRUE(message) << one.name;
    ASSERT_EQ(message->entries.size(), 1u) << one.name;
    const auto options = message->options_of(message->entries[0], true);
    EXPECT_EQ(options.fault, one.fault) << one.name;
    if (one.fault) continue;
    EXPECT_EQ(options.udp.has_value(), one.udp) << one.name;
    EXPECT_EQ(options.tcp.has_value(), one.tcp) << one.name;
  }
}

TEST(Discovery_message, with_wrong_arrays_is_dropped) {
  auto good = payload(offer_with("00 00 10"), udp_option);
  for (std::size_t size = 0; size < good.size(); ++size) {
    EXPECT_FALSE(read_discovery_message(Bytes(good).first(size), 10)) << size;
  }
  const auto with = [&](std::size_t at, std::uint32_t value) {
    auto bytes = good;
    store32(bytes.data() + at, value);
    return bytes;
  };
  EXPECT_FALSE(read_discovery_message(with(4, 15), 10)) << "entries of 16 bytes";
  EXPECT_FALSE(read_discovery_message(with(4, 0xFFFFFFF0), 10));
  EXPECT_FALSE(read_discovery_message(with(24, 13), 10)) << "options beyond the end";
  EXPECT_FALSE(read_discovery_message(with(24, 0xFFFFFFFF), 10));
  EXPECT_FALSE(read_discovery_message(good, 0)) << "too many entries";
  EXPECT_TRUE(read_discovery_message(good, 1));
}

TEST(Discovery_message, entries_of_unknown_type_are_left_out) {
  const auto message = read_discovery_message(payload("33"
                                                      "000000 00000000 00000000 00000000" +
                                                          offer_with("00 00 10"),
                                                      udp_option),
                                              10);
  ASSERT_TRUE(message);
  ASSERT_EQ(message->entries.size(), 1u);
  EXPECT_EQ(message->entries[0].type, Entry_type::offer_service);
}

TEST(Discovery_message, names_the_discovery_endpoint_of_its_sender_once_someipsd_1152) {
  const auto message = read_discovery_message(payload("",
                                                      "0009 24 00 0A000009 00 11 771A"
                                                      "0009 24 00 0A00000A 00 11 771A"),
                                              10);
  ASSERT_TRUE(message);
  EXPECT_EQ(message->discovery_endpoint(true),
            (Endpoint{boost::asio::ip::make_address("10.0.0.9"), 30490}));
  EXPECT_FALSE(message->discovery_endpoint(false));
}

TEST(Discovery_message, ipv6_endpoints_travel_too) {
  Discovery_writer writer;
  ASSERT_TRUE(writer.add(offer(), {Option::unicast(v6_endpoint, tcp_protocol)}));
  const auto bytes = writer.message(1, false);
  const auto message = read_discovery_message(Bytes(bytes).subspan(header_size), 10);
  ASSERT_TRUE(message);
  EXPECT_FALSE(message->reboot);
  EXPECT_EQ(message->options_of(message->entries[0], false).tcp, v6_endpoint);
  EXPECT_FALSE(message->options_of(message->entries[0], true).tcp);
}

TEST(Discovery_writer, stops_at_one_unfragmented_datagram) {
  Discovery_writer writer;
  std::size_t count = 0;
  while (writer.add(offer(), {Option::unicast(udp_endpoint, udp_protocol)}))
    ++count;
  EXPECT_EQ(count, (1400 - 12 - 12) / 16u);
  EXPECT_LE(writer.message(1, true).size(), header_size + 1400);
}

TEST(Configuration, items_are_names_with_or_without_values) {
  const auto items = configuration_items(hex("00 05 61 62 3D 31 32 03 6B 65 79 02 78 3D 00"));
  ASSERT_TRUE(items);
  ASSERT_EQ(items->size(), 3u);
  EXPECT_EQ((*items)[0].first, "ab");
  EXPECT_EQ((*items)[0].second, "12");
  EXPECT_EQ((*items)[1].first, "key");
  EXPECT_FALSE((*items)[1].second) << "present (someipsd_160)";
  EXPECT_EQ((*items)[2].second, "") << "present and empty (someipsd_217)";
  for (const char* malformed :
       {"", "00", "00 05 61", "00 02 3D 31 00", "00 01 20 00", "00 01 07 00", "00 01 61 00 01"}) {
    EXPECT_FALSE(configuration_items(hex(malformed))) << malformed;
  }
}

}  // namespace
}  // namespace someip
