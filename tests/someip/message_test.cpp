/// That any cut of a stream gives the same messages and little is kept of it is for
/// fuzz/stream_reader_fuzz.cpp to find.
#include "platform/someip/wire/message.h"

#include <gmock/gmock.h>

#include "platform/someip/discovery/discovery_message.h"
#include "platform/someip/discovery/discovery_outbox.h"
#include "platform/someip/discovery/discovery_peers.h"
#include "platform/someip/wire/local_frame.h"
#include "platform/someip/wire/stream_reader.h"

namespace someip {
namespace {

using Buffer = std::vector<std::byte>;

Buffer message(std::size_t payload, std::uint8_t protocol = 1) {
  Header header;
  header.service = 0x1234;
  header.protocol = protocol;
  const Header_bytes head = header_bytes(header, payload);
  Buffer bytes(head.begin(), head.end());
  bytes.resize(header_size + payload);
  return bytes;
}

Buffer with_length(std::uint32_t length) {
  Buffer bytes = message(0);
  store32(bytes.data() + 4, length);
  return bytes;
}

Buffer joined(std::initializer_list<Buffer> parts) {
  Buffer all;
  for (const auto& part : parts)
    all.insert(all.end(), part.begin(), part.end());
  return all;
}

/// The payload sizes of the messages that a reader finds in a stream that comes in pieces.
std::vector<std::size_t> read(Stream_reader& reader, const Buffer& stream, std::size_t piece) {
  std::vector<std::size_t> sizes;
  for (std::size_t at = 0; at < stream.size(); at += piece) {
    reader.append(Bytes(stream).subspan(at, std::min(piece, stream.size() - at)));
    while (const auto one = reader.next())
      sizes.push_back(one->payload.size());
  }
  return sizes;
}

TEST(Stream, finds_the_next_message_behind_a_magic_cookie) {
  const auto cookie = magic_cookie(true);
  const Buffer torn_cookies = joined({{cookie.begin(), cookie.begin() + 9},
                                      {cookie.begin(), cookie.begin() + 12},
                                      {cookie.begin() + 1, cookie.end()}});
  for (const auto& garbage : {with_length(0x100000), with_length(1), message(0, 2), torn_cookies}) {
    const auto stream = joined({message(1), garbage, {cookie.begin(), cookie.end()}, message(2)});
    for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, stream.size()}) {
      Stream_reader reader(1000);
      EXPECT_THAT(read(reader, stream, piece), testing::ElementsAre(1, 2));
      EXPECT_EQ(reader.resynchronisations(), 1u);
    }
  }
}

TEST(Local_frame_reader, takes_the_longest_message_and_breaks_at_a_longer_one) {
  Local_frame_reader reader(header_size + 4);
  reader.append(local_frame_bytes({}, message(4)));
  EXPECT_TRUE(reader.next());
  reader.append(local_frame_bytes({}, message(5)));
  EXPECT_FALSE(reader.next());
  EXPECT_TRUE(reader.broken());
}

TEST(Discovery_message, ipv6_endpoints_travel_too) {
  const Endpoint v6{boost::asio::ip::make_address("fd00::1"), 30503};
  Discovery_writer writer;
  ASSERT_TRUE(writer.add({.type = Entry_type::offer_service}, {Option::unicast(v6, tcp_protocol)}));
  const auto bytes = writer.message(1, false);
  const auto message = read_discovery_message(Bytes(bytes).subspan(header_size), 1);
  ASSERT_TRUE(message);
  EXPECT_EQ(message->options_of(message->entries[0], false).tcp, v6);
  EXPECT_FALSE(message->options_of(message->entries[0], true).tcp);
}

TEST(Discovery_outbox, keeps_what_belongs_together_in_one_message_and_sends_an_offer_once) {
  Limits limits;
  limits.discovery_peers = 1;
  Discovery_peers peers(limits);
  std::vector<std::size_t> sent;  // entries of each message
  Discovery_outbox outbox(peers, [&](const std::vector<std::byte>& bytes, const auto&) {
    const auto message = read_discovery_message(Bytes(bytes).subspan(header_size), 100);
    sent.push_back(message ? message->entries.size() : 0);
  });
  const Endpoint peer{boost::asio::ip::make_address("10.0.0.1"), 30490};
  const std::vector options{Option::unicast(peer, udp_protocol)};
  for (int i = 0; i < 400; ++i) {
    for (std::uint16_t instance = 1; instance <= 5; ++instance)
      outbox.add(peer, {{.type = Entry_type::offer_service, .instance = instance}}, options);
  }
  outbox.flush({});
  EXPECT_THAT(sent, testing::ElementsAre(5));
  sent.clear();
  constexpr std::size_t most = (1400 - 12 - 12) / 16;
  for (std::size_t i = 0; i + 1 < most; ++i)
    outbox.add(peer, {{.type = Entry_type::subscribe}}, options);
  outbox.add(peer, {{.type = Entry_type::subscribe}, {.type = Entry_type::subscribe}}, options);
  for (std::size_t i = 0; i + 2 < most; ++i)
    outbox.add(peer, {{.type = Entry_type::subscribe}}, options);
  outbox.flush({});
  EXPECT_THAT(sent, testing::ElementsAre(most - 1, most));
}

TEST(Discovery_peers, an_address_has_its_quota_and_no_session_goes_backwards) {
  using enum Discovery_peers::Verdict;
  Limits limits;
  limits.discovery_peers = 3;
  limits.discovery_peers_per_address = 2;
  Discovery_peers peers(limits);
  Time now{std::chrono::hours(1)};
  const auto origin = [](const char* address, std::uint16_t port) {
    const Endpoint endpoint{boost::asio::ip::make_address(address), port};
    return Origin{endpoint.address, endpoint};
  };
  const auto receive = [&](const Origin& from) {
    return peers.received(from, false, 1, true, now += std::chrono::milliseconds(1));
  };
  const Origin known_one = origin("10.0.0.1", 1);
  EXPECT_EQ(receive(known_one), known);
  for (std::uint16_t port = 1; port <= 300; ++port)
    EXPECT_EQ(receive(origin("10.0.0.2", port)), port <= 2 ? known : refused);
  EXPECT_EQ(receive(origin("10.0.0.3", 1)), known);  // in the place of one of two
  EXPECT_EQ(receive(origin("10.0.0.4", 1)), refused);
  EXPECT_EQ(receive(known_one), restarted);
  now += std::chrono::seconds(11);
  EXPECT_EQ(receive(origin("10.0.0.4", 1)), known);

  EXPECT_EQ(peers.towards(known_one.peer, now).next(), 1);
  EXPECT_EQ(peers.towards(known_one.peer, now).next(), 2);
  for (std::uint16_t port = 1; port <= 3; ++port)
    static_cast<void>(
        peers.towards(origin("10.0.0.2", port).peer, now += std::chrono::milliseconds(1)).next());
  EXPECT_EQ(peers.towards(known_one.peer, now).next(), 3);
}

}  // namespace
}  // namespace someip
