#include "platform/someip/segmentation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <numeric>

namespace someip {
namespace {

using Result = Reassembler::Result;
using namespace std::chrono_literals;

const Endpoint peer{boost::asio::ip::make_address("10.0.0.1"), 1000};
const Endpoint other_peer{boost::asio::ip::make_address("10.0.0.2"), 1000};
const Reassembler::Time start{};

std::vector<std::byte> payload(std::size_t size) {
  std::vector<std::byte> bytes(size);
  std::uint8_t next = 0;
  for (auto& byte : bytes)
    byte = std::byte{next++};
  return bytes;
}

Header header(std::uint16_t session = 1, std::uint16_t client = 7) {
  Header result;
  result.service = 0x1111;
  result.method = 0x8001;
  result.client = client;
  result.session = session;
  result.interface_version = 1;
  result.type = static_cast<std::uint8_t>(Message_type::notification);
  return result;
}

struct Piece {
  Header header;
  std::vector<std::byte> payload;  ///< segment header included
};

std::vector<Piece> train(const Header& of, std::size_t size) {
  std::vector<Piece> pieces;
  const auto whole = payload(size);
  for_each_segment(of, whole, [&](const Segment& segment) {
    std::vector<std::byte> rest(segment.head.begin() + header_size, segment.head.end());
    rest.insert(rest.end(), segment.part.begin(), segment.part.end());
    pieces.push_back({*read_header(segment.head), std::move(rest)});
    return true;
  });
  return pieces;
}

TEST(Segments, are_of_1392_bytes_with_ascending_offsets_and_a_more_flag) {
  for (const std::size_t size : {1401u, 2784u, 2785u, 5000u}) {
    const auto pieces = train(header(9), size);
    ASSERT_EQ(pieces.size(), (size + 1391) / 1392);
    for (std::size_t i = 0; i < pieces.size(); ++i) {
      const bool last = i + 1 == pieces.size();
      EXPECT_EQ(pieces[i].header.type, 0x22);
      EXPECT_EQ(pieces[i].header.session, 9);
      EXPECT_EQ(pieces[i].header.length, 8 + pieces[i].payload.size());
      EXPECT_EQ(load32(pieces[i].payload.data()), i * 1392 | (last ? 0u : 1u));
      if (!last) {
        EXPECT_EQ(pieces[i].payload.size(), 4u + 1392u);
      }
    }
  }
}

TEST(Reassembler, puts_interleaved_trains_of_several_senders_together) {
  Reassembler reassembler{Limits{}};
  const auto a = train(header(1, 7), 5000);
  const auto b = train(header(1, 8), 4000);
  int complete = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    for (const auto& [from, pieces] :
         {std::pair(peer, &a), std::pair(peer, &b), std::pair(other_peer, &a)}) {
      if (i >= pieces->size()) continue;
      const auto result = reassembler.add(from, (*pieces)[i].header, (*pieces)[i].payload, start);
      if (i + 1 < pieces->size()) {
        EXPECT_EQ(result, Result::incomplete);
        continue;
      }
      ASSERT_EQ(result, Result::complete);
      ++complete;
      const auto message = reassembler.take();
      EXPECT_EQ(message.payload, payload(pieces == &a ? 5000 : 4000));
      EXPECT_EQ(message.header.type, 0x02);
      EXPECT_EQ(message.header.length, 8 + message.payload.size());
    }
  }
  EXPECT_EQ(complete, 3);
  EXPECT_EQ(reassembler.trains(), 0u);
}

TEST(Reassembler, drops_the_whole_train_when_a_segment_does_not_fit) {
  using Change = std::function<void(std::vector<Piece>&)>;
  const std::pair<const char*, Change> cases[] = {
      {"gap", [](auto& pieces) { pieces.erase(pieces.begin() + 1); }},
      {"first one lost", [](auto& pieces) { pieces.erase(pieces.begin()); }},
      {"duplicate", [](auto& pieces) { pieces.insert(pieces.begin() + 1, pieces[0]); }},
      {"swapped", [](auto& pieces) { std::swap(pieces[1], pieces[2]); }},
      {"empty segment", [](auto& pieces) { pieces[1].payload.resize(4); }},
      {"no segment header", [](auto& pieces) { pieces[1].payload.resize(3); }},
      {"not a multiple of 16", [](auto& pieces) { pieces[1].payload.pop_back(); }},
      {"other interface version", [](auto& pieces) { pieces[2].header.interface_version = 2; }},
      {"other message type", [](auto& pieces) { pieces[2].header.type = 0x20; }},
      {"other return code", [](auto& pieces) { pieces[2].header.code = 1; }},
  };
  for (const auto& [name, change] : cases) {
    Reassembler reassembler{Limits{}};
    auto pieces = train(header(), 5000);
    change(pieces);
    bool broken = false;
    for (const auto& piece : pieces) {
      const auto result = reassembler.add(peer, piece.header, piece.payload, start);
      EXPECT_NE(result, Result::complete) << name;
      broken |= result == Result::broken;
    }
    EXPECT_TRUE(broken) << name;
    EXPECT_EQ(reassembler.trains(), 0u) << name;
  }
}

TEST(Reassembler, gives_up_a_train_that_never_ended_when_the_next_session_begins) {
  Reassembler reassembler{Limits{}};
  const auto first = train(header(1), 3000);
  const auto second = train(header(2), 3000);
  EXPECT_EQ(reassembler.add(peer, first[0].header, first[0].payload, start), Result::incomplete);
  EXPECT_EQ(reassembler.add(peer, second[0].header, second[0].payload, start), Result::incomplete);
  EXPECT_EQ(reassembler.trains(), 1u);
  EXPECT_EQ(reassembler.take_abandoned(), 1u);
  EXPECT_EQ(reassembler.add(peer, first[1].header, first[1].payload, start), Result::broken);
  EXPECT_EQ(reassembler.add(peer, second[1].header, second[1].payload, start), Result::incomplete);
  EXPECT_EQ(reassembler.add(peer, second[2].header, second[2].payload, start), Result::complete);
}

TEST(Reassembler, gives_up_a_train_that_stood_still_even_when_its_rest_comes) {
  Limits limits;
  Reassembler reassembler{limits};
  const auto pieces = train(header(), 4000);
  const auto last_moment = start + limits.reassembly_timeout;
  EXPECT_EQ(reassembler.add(peer, pieces[0].header, pieces[0].payload, start), Result::incomplete);
  EXPECT_EQ(reassembler.add(peer, pieces[1].header, pieces[1].payload, last_moment),
            Result::incomplete);
  EXPECT_EQ(reassembler.add(peer, pieces[2].header, pieces[2].payload,
                            last_moment + limits.reassembly_timeout + 1ms),
            Result::broken);
  EXPECT_EQ(reassembler.take_abandoned(), 1u);
}

TEST(Reassembler, keeps_its_bounds) {
  Limits limits;
  limits.reassemblies = 3;
  limits.reassemblies_per_peer = 2;
  limits.message_bytes = 4000;
  Reassembler reassembler{limits};
  const auto begin = [&](const Endpoint& from, std::uint16_t client,
                         Reassembler::Time now = start) {
    const auto piece = train(header(1, client), 3000)[0];
    return reassembler.add(from, piece.header, piece.payload, now);
  };
  EXPECT_EQ(begin(peer, 1), Result::incomplete);
  EXPECT_EQ(begin(peer, 2), Result::incomplete);
  EXPECT_EQ(begin(peer, 3), Result::refused) << "two per peer";
  EXPECT_EQ(begin(other_peer, 1), Result::incomplete);
  EXPECT_EQ(begin(other_peer, 2), Result::refused) << "three in all";
  EXPECT_EQ(begin(other_peer, 2, start + limits.reassembly_timeout + 1ms), Result::incomplete)
      << "the others stood still for too long";
  reassembler.forget(other_peer.address);
  EXPECT_EQ(reassembler.trains(), 0u);

  std::vector<Result> results;
  for (const auto& piece : train(header(), 5000)) {
    results.push_back(reassembler.add(peer, piece.header, piece.payload, start));
  }
  EXPECT_EQ(results[2], Result::refused) << "longer than a message may be";
  EXPECT_EQ(reassembler.trains(), 0u);
}

}  // namespace
}  // namespace someip
