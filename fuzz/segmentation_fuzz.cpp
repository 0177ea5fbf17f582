// Trains of segments: what we send comes together again, what anybody sends stays within bounds.
#include <vector>

#include "fuzz/input.h"
#include "platform/someip/wire/reassembler.h"
#include "platform/someip/wire/segmentation.h"

namespace {

using fuzz::require;
using someip::Reassembler;
using someip::Time;

constexpr std::size_t most_trains = 4;
constexpr std::size_t most_of_a_peer = 2;
constexpr std::size_t most_bytes = 8192;

someip::Limits small_limits() {
  someip::Limits limits;
  limits.reassemblies = most_trains;
  limits.reassemblies_per_peer = most_of_a_peer;
  limits.message_bytes = most_bytes;
  return limits;
}

std::vector<std::byte> pattern(std::size_t size, std::uint8_t start) {
  std::vector<std::byte> bytes(size);
  for (auto& byte : bytes)
    byte = std::byte{start++};
  return bytes;
}

/// A message of our own, all of whose segments arrive.
void whole_train(fuzz::Input& input, Reassembler& reassembler, Time now) {
  someip::Header header;
  header.service = 0x7000;  // of no other train
  header.method = input.u16();
  header.session = input.u16();
  header.type = 0x02;
  const std::size_t size = input.u16() % most_bytes;
  const auto payload = pattern(size, input.u8());
  const someip::Endpoint peer{boost::asio::ip::address_v4(0x7F4D0101), 30501};
  if (payload.empty()) return;
  auto result = Reassembler::Result::incomplete;
  someip::for_each_segment(header, payload, [&](const someip::Segment& segment) {
    std::vector<std::byte> body(segment.head.begin() + someip::header_size, segment.head.end());
    body.insert(body.end(), segment.part.begin(), segment.part.end());
    const auto head = someip::read_header(segment.head);
    require(head && head->segmented() &&
                head->length == someip::length_before_payload + body.size() &&
                segment.part.size() <= someip::max_segment_payload,
            "a segment's header fits it");
    require(result == Reassembler::Result::incomplete, "a train ends with its last segment");
    result = reassembler.add(peer, *head, body, now);
    return result == Reassembler::Result::incomplete;
  });
  if (result == Reassembler::Result::refused) return;
  require(result == Reassembler::Result::complete, "a train in order is put together");
  const auto message = reassembler.take();
  header.length = static_cast<std::uint32_t>(someip::length_before_payload + payload.size());
  require(message.header == header && message.payload == payload,
          "what is put together is what was sent");
}

/// One segment of whatever kind.
void any_segment(fuzz::Input& input, Reassembler& reassembler, Time now) {
  constexpr std::array<std::uint16_t, 2> ids{0x1234, 0x5678};
  const auto choice = input.u8();
  someip::Header header;
  header.service = ids[choice & 1U];
  header.method = 0x8001;
  header.client = (choice >> 1U) & 1U;
  header.session = static_cast<std::uint16_t>((choice >> 2U) & 3U);
  header.interface_version = 1;
  header.type = static_cast<std::uint8_t>(someip::segment_flag | ((choice >> 4U) & 1U ? 0x02 : 0));
  header.code = (choice & 0x80U) != 0 ? input.u8() : 0;
  const someip::Endpoint peer{boost::asio::ip::address_v4(0x7F4D0102 + ((choice >> 5U) & 3U)),
                              static_cast<std::uint16_t>(30501 + (choice & 1U))};
  const std::uint32_t place = input.u16();  // in units of 16 bytes
  const std::uint32_t word = place << 4U | (input.u8() & 0x0FU);
  const std::size_t size = std::size_t{input.u8()} * 16U;
  const auto body = pattern(size + (input.flag() ? 8U : 0U), choice);
  std::vector<std::byte> payload(someip::segment_header_size);
  someip::store32(payload.data(), word);
  payload.insert(payload.end(), body.begin(), body.end());
  if (input.u8() == 0xFF) payload.resize(input.u8() % 5U);
  header.length = static_cast<std::uint32_t>(someip::length_before_payload + payload.size());

  if (reassembler.add(peer, header, payload, now) != Reassembler::Result::complete) return;
  const auto message = reassembler.take();
  require(!message.header.segmented(), "a whole message is no segment");
  require(message.payload.size() + someip::header_size <= most_bytes, "a message has a bound");
  require(message.header.length == someip::length_before_payload + message.payload.size(),
          "a whole message has its own length");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input{data, size};
  const auto limits = small_limits();
  Reassembler reassembler(limits);
  Time now{std::chrono::seconds(1000)};
  while (!input.empty()) {
    switch (input.u8() % 8U) {
      case 0:
        now += std::chrono::milliseconds(input.u16());
        break;
      case 1:
        whole_train(input, reassembler, now);
        break;
      case 2:
        reassembler.forget(boost::asio::ip::address_v4(0x7F4D0102 + (input.u8() & 3U)));
        break;
      default:
        any_segment(input, reassembler, now);
        break;
    }
    require(reassembler.trains() <= most_trains, "trains have a bound");
  }
  return 0;
}
