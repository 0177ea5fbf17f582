#include "platform/someip/message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/someip/sessions.h"
#include "platform/someip/stream_reader.h"
#include "tests/someip/hex.h"

namespace someip {
namespace {

using test::hex;

// service 0x1234, method 0x8005, client 0x0102, session 0x0304, versions 1 and 7, notification
std::vector<std::byte> message(const char* payload = "") {
  auto bytes = hex("1234 8005 00000008 0102 0304 01 07 02 00");
  const auto rest = hex(payload);
  store32(bytes.data() + 4, static_cast<std::uint32_t>(8 + rest.size()));
  bytes.insert(bytes.end(), rest.begin(), rest.end());
  return bytes;
}

std::vector<std::byte> joined(const std::vector<std::vector<std::byte>>& parts) {
  std::vector<std::byte> all;
  for (const auto& part : parts)
    all.insert(all.end(), part.begin(), part.end());
  return all;
}

TEST(Header, is_read_field_by_field_and_written_back_the_same) {
  const auto bytes = message("AABB");
  const auto header = read_header(bytes);
  ASSERT_TRUE(header);
  EXPECT_EQ(header->service, 0x1234);
  EXPECT_EQ(header->method, 0x8005);
  EXPECT_EQ(header->length, 10u);
  EXPECT_EQ(header->client, 0x0102);
  EXPECT_EQ(header->session, 0x0304);
  EXPECT_EQ(header->protocol, 1);
  EXPECT_EQ(header->interface_version, 7);
  EXPECT_TRUE(header->is(Message_type::notification));
  const Header_bytes written = header_bytes(*header, 2);
  EXPECT_TRUE(std::equal(written.begin(), written.end(), bytes.begin()));
  EXPECT_FALSE(read_header(Bytes(bytes).first(15)));
}

TEST(Datagram, holds_any_number_of_messages_someip_319) {
  const auto datagram = joined({message("01"), message(), message("020304")});
  Datagram_reader reader(datagram);
  std::vector<std::size_t> sizes;
  while (const auto one = reader.next())
    sizes.push_back(one->payload.size());
  EXPECT_THAT(sizes, testing::ElementsAre(1, 0, 3));
  EXPECT_FALSE(reader.malformed());
}

TEST(Datagram, with_a_wrong_length_gives_what_stands_before_it_someip_798) {
  struct Case {
    const char* name;
    std::vector<std::byte> tail;
  };
  auto with_length = [](std::uint32_t length) {
    auto bytes = message("AABB");
    store32(bytes.data() + 4, length);
    return bytes;
  };
  const Case cases[] = {
      {"cut header", hex("1234 8005 0000")},
      {"length 7", with_length(7)},
      {"length 0", with_length(0)},
      {"one byte too long", with_length(11)},
      {"as long as possible", with_length(0xFFFFFFFF)},
      {"one surplus byte", with_length(9)},
  };
  for (const auto& [name, tail] : cases) {
    const auto datagram = joined({message("01"), tail});
    Datagram_reader reader(datagram);
    EXPECT_TRUE(reader.next()) << name;
    while (reader.next()) {
    }
    EXPECT_TRUE(reader.malformed()) << name;
  }
  Datagram_reader empty{Bytes{}};
  EXPECT_FALSE(empty.next());
  EXPECT_FALSE(empty.malformed());
}

TEST(Stream, gives_messages_whatever_the_fractions_that_arrive) {
  const auto stream = joined({message("0102"), {}, message(), message("030405")});
  for (std::size_t piece = 1; piece <= stream.size(); ++piece) {
    Stream_reader reader(1000);
    std::vector<std::size_t> sizes;
    for (std::size_t at = 0; at < stream.size(); at += piece) {
      reader.append(Bytes(stream).subspan(at, std::min(piece, stream.size() - at)));
      while (const auto one = reader.next())
        sizes.push_back(one->payload.size());
    }
    EXPECT_THAT(sizes, testing::ElementsAre(2, 0, 3)) << "in pieces of " << piece;
    EXPECT_EQ(reader.held(), 0u);
  }
}

TEST(Stream, finds_the_next_message_behind_a_magic_cookie_someip_586) {
  const auto cookie_array = magic_cookie(true);
  const std::vector<std::byte> cookie(cookie_array.begin(), cookie_array.end());
  const auto too_long = hex("1234 8005 00100000 0102 0304 01 07 02 00");
  const auto too_short = hex("1234 8005 00000001 0102 0304 01 07 02 00");
  const auto wrong_protocol = hex("1234 8005 00000008 0102 0304 02 07 02 00");
  for (const auto& garbage :
       {too_long, too_short, wrong_protocol, hex("FFFF00FFFF0000000008DEADBEEF000102030405")}) {
    const auto stream = joined({message("01"), garbage, hex("FFFF"), cookie, message("0203")});
    for (std::size_t piece : {std::size_t{1}, std::size_t{7}, stream.size()}) {
      Stream_reader reader(1000);
      std::vector<std::size_t> sizes;
      for (std::size_t at = 0; at < stream.size(); at += piece) {
        reader.append(Bytes(stream).subspan(at, std::min(piece, stream.size() - at)));
        while (const auto one = reader.next())
          sizes.push_back(one->payload.size());
      }
      EXPECT_THAT(sizes, testing::ElementsAre(1, 2));
      EXPECT_EQ(reader.resynchronisations(), 1u);
    }
  }
}

TEST(Stream, does_not_grow_while_it_searches) {
  Stream_reader reader(1000);
  reader.append(std::vector<std::byte>(64, std::byte{0}));
  for (int i = 0; i < 100; ++i) {
    EXPECT_FALSE(reader.next());
    EXPECT_LT(reader.held(), header_size);
    reader.append(std::vector<std::byte>(1000, std::byte{0}));
  }
}

TEST(Session_counter, wraps_to_one_and_then_drops_the_reboot_flag_someipsd_41) {
  Session_counter counter;
  EXPECT_EQ(counter.next(), 1);
  for (int i = 2; i <= 0xFFFF; ++i)
    ASSERT_EQ(counter.next(), i);
  EXPECT_TRUE(counter.reboot_flag());
  EXPECT_EQ(counter.next(), 1);
  EXPECT_FALSE(counter.reboot_flag());
}

TEST(Reboot_detector, tells_restarts_from_loss_and_wraps_someipsd_764) {
  struct Case {
    const char* name;
    std::uint16_t old_session;
    bool old_flag;
    std::uint16_t session;
    bool flag;
    bool restarted;
  };
  const Case cases[] = {
      {"next message", 5, true, 6, true, false},
      {"lost messages", 5, true, 60, true, false},
      {"same session again", 5, true, 5, true, true},
      {"smaller session", 5, true, 1, true, true},
      {"wrap", 0xFFFF, true, 1, false, false},
      {"long after the wrap", 100, false, 7, false, false},
      {"flag is back", 5, false, 6, true, true},
      {"flag is back with a smaller session", 500, false, 1, true, true},
  };
  for (const auto& one : cases) {
    Reboot_detector detector;
    EXPECT_FALSE(detector.restarted(one.old_session, one.old_flag)) << one.name;
    EXPECT_EQ(detector.restarted(one.session, one.flag), one.restarted) << one.name;
  }
}

}  // namespace
}  // namespace someip
