#include "fuzz/world.h"

#include <string>

#include "platform/linux/com/manifest.h"

namespace fuzz {

namespace {

constexpr const char* manifest = R"({
  "nodes": {"self": {"address": "127.77.1.1", "prefixLength": 16, "clientId": 7,
                     "requestTimeoutMs": 500}},
  "serviceDiscovery": {
    "multicastAddress": "239.192.77.77", "port": 30490,
    "initialDelayMinMs": 20, "initialDelayMaxMs": 20,
    "repetitionsBaseDelayMs": 50, "repetitionsMax": 2, "cyclicOfferDelayMs": 1000,
    "requestResponseDelayMinMs": 10, "requestResponseDelayMaxMs": 10,
    "offerTtlS": 3, "subscribeTtlS": 3},
  "limits": {
    "subscribersPerEventGroup": 3, "subscribersPerAddress": 2, "reassemblies": 3, "reassembliesPerPeer": 2,
    "messageBytes": 8192, "tcpConnections": 2, "tcpSendQueueBytes": 16384, "pendingCalls": 2,
    "entriesPerDiscoveryMessage": 12, "remoteInstances": 3, "remoteInstancesPerAddress": 2,
    "discoveryPeers": 4, "discoveryPeersPerAddress": 2,
    "queuedNotifications": 4},
  "services": {
    "Provided": {
      "id": "0x1111", "majorVersion": 1, "minorVersion": 2,
      "methods": {"ask": {"id": 1}, "tell": {"id": 2, "fireAndForget": true},
                  "fail": {"id": 3}, "bulk": {"id": 4, "transport": "tcp"}},
      "events": {"tick": {"id": "0x8001", "eventGroup": 1},
                 "stream": {"id": "0x8005", "eventGroup": 3, "transport": "tcp"}},
      "fields": {
        "state": {"getter": 16, "setter": 17, "notifier": "0x8002", "eventGroup": 1},
        "shared": {"notifier": "0x8003", "eventGroup": 2},
        "large": {"notifier": "0x8004", "eventGroup": 4}},
      "instances": [
        {"id": 1, "specifier": "provided/one", "node": "self", "udpPort": 30501, "tcpPort": 30501,
         "multicast": [{"eventGroup": 2, "address": "239.192.77.78", "port": 30502,
                        "threshold": 2}]},
        {"id": 2, "specifier": "provided/two", "node": "self", "udpPort": 30503, "tcpPort": 30503}]},
    "Private": {
      "id": "0x4444", "majorVersion": 1, "minorVersion": 0,
      "methods": {"ask": {"id": 1}},
      "instances": [{"id": 1, "specifier": "private/one", "node": "self", "udpPort": 30501}],
      "allowedPeers": ["127.77.1.2"]},
    "Used": {
      "id": "0x2222", "majorVersion": 2, "minorVersion": 0,
      "methods": {"ask": {"id": 1}},
      "events": {"tick": {"id": "0x8001", "eventGroup": 1}},
      "fields": {"state": {"getter": 16, "notifier": "0x8002", "eventGroup": 2}}},
    "Guarded": {
      "id": "0x3333", "majorVersion": 1, "minorVersion": 0,
      "methods": {"ask": {"id": 1, "transport": "tcp"}},
      "events": {"tick": {"id": "0x8001", "eventGroup": 1, "transport": "tcp"}},
      "allowedPeers": ["127.77.1.2"]}
  }
})";

someip::Deployment without_delays() {
  auto result = tq::com::parse_deployment(manifest, "manifest");
  auto& timing = result.discovery;
  timing.initial_delay_min = timing.initial_delay_max = someip::Milliseconds(0);
  timing.request_response_delay_min = timing.request_response_delay_max = someip::Milliseconds(0);
  timing.repetitions_base_delay = someip::Milliseconds(0);
  timing.cyclic_offer_delay = someip::Milliseconds(0);
  timing.offer_ttl = timing.subscribe_ttl = 0xFFFFFF;
  return result;
}

constexpr std::array<std::uint16_t, 5> services{provided_service, used_service, guarded_service,
                                                private_service, 0x5555};
constexpr std::array<std::uint16_t, 6> instances{1, 2, 0xFFFF, 0, 3, 4};
constexpr std::array<std::uint16_t, 8> groups{1, 2, 4, 1, 2, 4, 3, 0};
constexpr std::array<std::uint16_t, 6> ports{30501, 30502, 30503, 30490, 40000, 0};

class Writer {
 public:
  void u8(std::uint8_t value) { bytes_.push_back(std::byte{value}); }
  void u16(std::uint16_t value) {
    u8(static_cast<std::uint8_t>(value >> 8U));
    u8(static_cast<std::uint8_t>(value));
  }
  void u32(std::uint32_t value) {
    u16(static_cast<std::uint16_t>(value >> 16U));
    u16(static_cast<std::uint16_t>(value));
  }
  void u24(std::uint32_t value) {
    u8(static_cast<std::uint8_t>(value >> 16U));
    u16(static_cast<std::uint16_t>(value));
  }
  void bytes(Bytes bytes) { bytes_.insert(bytes_.end(), bytes.begin(), bytes.end()); }
  [[nodiscard]] std::vector<std::byte>& all() { return bytes_; }

 private:
  std::vector<std::byte> bytes_;
};

std::uint32_t any_ttl(Input& input) {
  constexpr std::array<std::uint32_t, 7> usual{3, 1, 3, 0, 0xFFFFFF, 3, 100};
  const auto choice = input.u8();
  return choice >= 0xF0 ? input.u32() & 0xFFFFFFU : usual[choice % usual.size()];
}

std::uint8_t any_major(Input& input) {
  constexpr std::array<std::uint16_t, 5> usual{1, 2, 1, 2, 0xFF};
  return static_cast<std::uint8_t>(input.usual_or_any(usual));
}

void add_entry(Input& input, Writer& out) {
  constexpr std::array<std::uint8_t, 8> types{1, 6, 7, 0, 1, 6, 7, 6};
  const auto choice = input.u8();
  const auto type = choice >= 0xF8 ? input.u8() : types[choice % types.size()];
  // In one byte the run of each of the two: first option, how many.
  const auto runs = input.u8();
  out.u8(type);
  out.u8(runs & 3U);
  out.u8((runs >> 4U) & 3U);
  out.u8(static_cast<std::uint8_t>(((runs >> 2U) & 3U) << 4U | (runs >> 6U)));
  out.u16(input.usual_or_any(services));
  out.u16(input.usual_or_any(instances));
  out.u8(any_major(input));
  out.u24(any_ttl(input));
  if (type == 6 || type == 7) {
    constexpr std::array<std::uint16_t, 6> usual_flags{0, 0x80, 1, 0x81, 0x0F, 0xFF80};
    out.u16(input.usual_or_any(usual_flags));
    out.u16(input.usual_or_any(groups));
  } else {
    constexpr std::array<std::uint32_t, 4> minors{0xFFFFFFFF, 2, 0, 1};
    out.u32(input.pick(minors));
  }
}

void add_option(Input& input, Writer& out) {
  constexpr std::array<std::uint8_t, 10> kinds{0x04, 0x04, 0x04, 0x14, 0x24,
                                               0x06, 0x01, 0x02, 0x16, 0x99};
  constexpr std::array<std::uint8_t, 4> protocols{0x11, 0x06, 0x11, 0x00};
  const auto kind = input.pick(kinds);
  Writer content;
  content.u8(0);
  if (kind == 0x06 || kind == 0x16) {
    constexpr std::array<std::uint8_t, 3> starts{0xFD, 0xFF, 0x00};
    content.u8(input.pick(starts));
    for (int i = 0; i < 14; ++i)
      content.u8(0);
    content.u8(input.u8());
  } else if (kind == 0x04 || kind == 0x14 || kind == 0x24) {
    content.u32(any_endpoint(input).address.to_v4().to_uint());
  }
  if (kind == 0x01 || kind == 0x02 || kind == 0x99) {
    content.bytes(input.bytes(input.u8() & 0x1FU));
  } else {
    content.u8(0);
    content.u8(input.pick(protocols));
    content.u16(input.usual_or_any(ports));
  }
  const auto wrong = input.u8();
  out.u16(wrong >= 0xF0 ? input.u16() : static_cast<std::uint16_t>(content.all().size()));
  out.u8(kind);
  out.bytes(content.all());
}

/// Now and then one byte is another one, or the end is missing.
void damage(Input& input, std::vector<std::byte>& message) {
  const auto how = input.u8();
  if (how < 0xE0) return;
  const std::size_t at = input.u16() % message.size();
  if (how < 0xF0) {
    message[at] = std::byte{input.u8()};
  } else {
    message.resize(at);
  }
}

std::vector<std::byte> framed(const someip::Header& header, Bytes payload) {
  const auto head = someip::header_bytes(header, payload.size());
  std::vector<std::byte> bytes(head.begin(), head.end());
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  return bytes;
}

}  // namespace

const someip::Deployment& deployment(bool delays) {
  static const auto with = tq::com::parse_deployment(manifest, "manifest");
  static const auto without = without_delays();
  return delays ? with : without;
}

someip::Endpoint any_peer(Input& input) {
  const auto choice = input.u8();
  const std::uint16_t port = choice >= 0xF0 ? 30491 : 30490;
  return {address(own_address + 1 + choice % peer_count), port};
}

someip::Endpoint any_endpoint(Input& input) {
  constexpr std::array<std::uint32_t, 14> odd{
      own_address, 0x7F4D0102, 0x7F4D0103, 0x7F4D0104, 0x7F4D0102, 0xEFC04D4E, 0xEFC04D4D,
      0x00000000,  0xFFFFFFFF, 0x7F4DFFFF, 0x0A000001, 0x7F4D0105, 0xE0000001, 0x7F4D0103};
  return {address(input.pick(odd)), input.usual_or_any(ports)};
}

std::vector<std::byte> Discovery_source::message(Input& input,
                                                 const someip::Endpoint& peer,
                                                 bool multicast) {
  const auto flags = input.u8();
  const auto sizes = input.u8();
  auto& last = sessions_[{peer, multicast}];
  switch (flags & 7U) {
    case 0:
      break;  // the same again
    case 1:
      last = input.u16();
      break;
    default:
      last = last == 0xFFFF ? 1 : static_cast<std::uint16_t>(last + 1);
      break;
  }
  someip::Header header;
  header.service = 0xFFFF;
  header.method = 0x8100;
  header.session = last;
  header.interface_version = 1;
  header.type = static_cast<std::uint8_t>(someip::Message_type::notification);

  Writer entries, options, payload;
  for (unsigned i = 0; i < (sizes & 0x0FU); ++i)
    add_entry(input, entries);
  for (unsigned i = 0; i < (sizes >> 4U); ++i)
    add_option(input, options);
  // As on the wire, but so that 0 stands for what a healthy peer says.
  payload.u32(std::uint32_t{static_cast<std::uint8_t>((flags & 0xE0U) ^ 0xE0U)} << 24U);
  payload.u32(static_cast<std::uint32_t>(entries.all().size()));
  payload.bytes(entries.all());
  payload.u32(static_cast<std::uint32_t>(options.all().size()));
  payload.bytes(options.all());
  auto bytes = framed(header, payload.all());
  damage(input, bytes);
  return bytes;
}

std::vector<std::byte> any_message(Input& input) {
  constexpr std::array<std::uint16_t, 11> methods{1,      2,      3,      16,     17, 0x8001,
                                                  0x8002, 0x8003, 0x8004, 0x8005, 4};
  constexpr std::array<std::uint8_t, 10> types{0x00, 0x01, 0x02, 0x80, 0x81,
                                               0x20, 0x22, 0xA0, 0x40, 0x22};
  constexpr std::array<std::uint16_t, 3> clients{7, 1, 0};
  someip::Header header;
  header.service = input.usual_or_any(services);
  header.method = input.usual_or_any(methods);
  header.client = input.usual_or_any(clients);
  header.session = input.u8();
  header.interface_version = any_major(input);
  header.type = input.pick(types);
  const auto rare = input.u8();
  if (rare >= 0xF0) header.code = input.u8();
  if (rare == 0xEF) header.protocol = input.u8();
  Writer payload;
  if (header.segmented()) {
    const auto offset = input.u8();
    payload.u32(std::uint32_t{offset} << 7U | (input.u8() & 1U));
  }
  std::size_t size = input.u8();
  if (header.segmented()) size *= 16;
  payload.all().resize(payload.all().size() + size, std::byte{0x5A});
  auto bytes = framed(header, payload.all());
  damage(input, bytes);
  return bytes;
}

}  // namespace fuzz
