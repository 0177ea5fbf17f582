#include "platform/someip/discovery/discovery_message.h"

#include <algorithm>
#include <cassert>

namespace someip {

namespace {

constexpr std::size_t entry_size = 16;
constexpr std::size_t max_payload = 1400;
constexpr std::uint8_t reboot_flag = 0x80;
constexpr std::uint8_t unicast_flag = 0x40;
constexpr std::uint8_t explicit_initial_data_flag = 0x20;

std::optional<Entry> read_entry(const std::byte* at) {
  Entry entry;
  switch (load8(at)) {
    case 0x00:
      entry.type = Entry_type::find_service;
      break;
    case 0x01:
      entry.type = Entry_type::offer_service;
      break;
    case 0x06:
      entry.type = Entry_type::subscribe;
      break;
    case 0x07:
      entry.type = Entry_type::subscribe_ack;
      break;
    default:
      return std::nullopt;
  }
  const std::uint8_t counts = load8(at + 3);
  entry.runs[0] = {load8(at + 1), static_cast<std::uint8_t>(counts >> 4)};
  entry.runs[1] = {load8(at + 2), static_cast<std::uint8_t>(counts & 0x0F)};
  entry.service = load16(at + 4);
  entry.instance = load16(at + 6);
  entry.major_version = load8(at + 8);
  entry.ttl = load24(at + 9);
  if (entry.about_event_group()) {
    entry.flags = load16(at + 12);
    entry.event_group = load16(at + 14);
  } else {
    entry.minor_version = load32(at + 12);
  }
  return entry;
}

void append_entry(const Entry& entry, std::vector<std::byte>& out) {
  std::array<std::byte, entry_size> bytes;
  std::byte* at = bytes.data();
  store8(at, static_cast<std::uint8_t>(entry.type));
  store8(at + 1, entry.runs[0].index);
  store8(at + 2, entry.runs[1].index);
  store8(at + 3, static_cast<std::uint8_t>((entry.runs[0].count << 4) | entry.runs[1].count));
  store16(at + 4, entry.service);
  store16(at + 6, entry.instance);
  store8(at + 8, entry.major_version);
  store24(at + 9, entry.ttl);
  if (entry.about_event_group()) {
    store16(at + 12, entry.flags);
    store16(at + 14, entry.event_group);
  } else {
    store32(at + 12, entry.minor_version);
  }
  out.insert(out.end(), bytes.begin(), bytes.end());
}

enum class Option_kind { unknown, text, ipv4, ipv6 };

Option_kind kind_of(std::uint8_t type) {
  switch (static_cast<Option_type>(type)) {
    case Option_type::configuration:
    case Option_type::load_balancing:
      return Option_kind::text;
    case Option_type::ipv4_endpoint:
    case Option_type::ipv4_multicast:
    case Option_type::ipv4_discovery_endpoint:
      return Option_kind::ipv4;
    case Option_type::ipv6_endpoint:
    case Option_type::ipv6_multicast:
    case Option_type::ipv6_discovery_endpoint:
      return Option_kind::ipv6;
  }
  return Option_kind::unknown;
}

bool is_multicast(const Option& option) {
  return option.is(Option_type::ipv4_multicast) || option.is(Option_type::ipv6_multicast);
}

bool is_discovery_endpoint(const Option& option) {
  return option.is(Option_type::ipv4_discovery_endpoint) ||
         option.is(Option_type::ipv6_discovery_endpoint);
}

/// `content` is the option without length and type: reserved byte, then address, reserved,
/// protocol, port.
template <class Ip>
void read_endpoint(Bytes content, Option& option) {
  typename Ip::bytes_type address;
  if (content.size() != 1 + address.size() + 4) {
    option.valid = false;
    return;
  }
  const std::byte* at = content.data() + 1;
  for (auto& byte : address)
    byte = load8(at++);
  option.endpoint = {Ip(address), load16(at + 2)};
  option.protocol = load8(at + 1);
  const bool known_protocol =
      option.protocol == udp_protocol ||
      (option.protocol == tcp_protocol && !is_multicast(option) && !is_discovery_endpoint(option));
  option.valid = known_protocol && option.endpoint.port != 0 &&
                 option.endpoint.address.is_multicast() == is_multicast(option);
}

Option read_option(std::uint8_t type, Bytes content) {
  Option option;
  option.type = type;
  switch (kind_of(type)) {
    case Option_kind::ipv4:
      read_endpoint<boost::asio::ip::address_v4>(content, option);
      break;
    case Option_kind::ipv6:
      read_endpoint<boost::asio::ip::address_v6>(content, option);
      break;
    case Option_kind::text:
      option.content.assign(content.begin(), content.end());
      option.valid =
          option.is(Option_type::load_balancing) ? content.size() == 5 : is_configuration(content);
      break;
    case Option_kind::unknown:
      break;
  }
  return option;
}

std::vector<std::byte> option_bytes(const Option& option) {
  const Address& address = option.endpoint.address;
  std::vector<std::byte> bytes(4);
  const auto append = [&](const auto& octets) {
    for (const unsigned char octet : octets)
      bytes.push_back(std::byte{octet});
  };
  if (address.is_v4()) {
    append(address.to_v4().to_bytes());
  } else {
    append(address.to_v6().to_bytes());
  }
  bytes.insert(bytes.end(), 4, std::byte{0});
  store8(bytes.data() + bytes.size() - 3, option.protocol);
  store16(bytes.data() + bytes.size() - 2, option.endpoint.port);
  store16(bytes.data(), static_cast<std::uint16_t>(bytes.size() - 3));
  store8(bytes.data() + 2, option.type);
  return bytes;
}

/// Takes `endpoint` over; false when a different one is there already.
bool agree(std::optional<Endpoint>& known, const Endpoint& endpoint) {
  if (known && !(*known == endpoint)) return false;
  known = endpoint;
  return true;
}

}  // namespace

Option Option::unicast(const Endpoint& endpoint, std::uint8_t protocol) {
  Option option;
  option.type = static_cast<std::uint8_t>(endpoint.address.is_v4() ? Option_type::ipv4_endpoint
                                                                   : Option_type::ipv6_endpoint);
  option.protocol = protocol;
  option.endpoint = endpoint;
  return option;
}

Option Option::multicast(const Endpoint& endpoint) {
  Option option = unicast(endpoint, udp_protocol);
  option.type = static_cast<std::uint8_t>(endpoint.address.is_v4() ? Option_type::ipv4_multicast
                                                                   : Option_type::ipv6_multicast);
  return option;
}

Entry_options Discovery_message::options_of(const Entry& entry, bool ipv4) const {
  Entry_options result;
  for (const Entry::Run& run : entry.runs) {
    if (run.count == 0) continue;
    if (std::size_t{run.index} + run.count > options.size()) {
      result.fault = true;
      return result;
    }
    for (std::size_t i = run.index; i < std::size_t{run.index} + run.count; ++i) {
      const Option& option = options[i];
      const Option_kind kind = kind_of(option.type);
      if (kind == Option_kind::unknown || is_discovery_endpoint(option)) continue;
      if (kind == (ipv4 ? Option_kind::ipv6 : Option_kind::ipv4)) continue;
      // Where a searcher may be reached is of no use, right or wrong (someipsd_106).
      if (entry.type == Entry_type::find_service && kind != Option_kind::text) continue;
      if (!option.valid) {
        result.fault = true;
        continue;
      }
      if (kind == Option_kind::text) continue;
      // A multicast address is for answers to subscriptions, the others are for requests and offers
      // (someipsd_854); what does not belong to the entry is redundant (someipsd_1141).
      if (is_multicast(option)) {
        if (entry.type != Entry_type::subscribe_ack) continue;
        result.fault |= !agree(result.multicast, option.endpoint);
      } else if (entry.type == Entry_type::offer_service || entry.type == Entry_type::subscribe) {
        result.fault |=
            !agree(option.protocol == udp_protocol ? result.udp : result.tcp, option.endpoint);
      }
    }
  }
  return result;
}

std::optional<Endpoint> Discovery_message::discovery_endpoint(bool ipv4) const {
  const auto wanted =
      ipv4 ? Option_type::ipv4_discovery_endpoint : Option_type::ipv6_discovery_endpoint;
  const auto found =
      std::ranges::find_if(options, [&](const Option& option) { return option.is(wanted); });
  if (found == options.end() || !found->valid) return std::nullopt;
  return found->endpoint;
}

std::optional<Discovery_message> read_discovery_message(Bytes payload, std::size_t max_entries) {
  // Flags and reserved, length of the entries; after the entries, the length of the options.
  if (payload.size() < 12) return std::nullopt;
  const std::uint8_t flags = load8(payload.data());
  const std::size_t entries_length = load32(payload.data() + 4);
  if (entries_length > payload.size() - 12 || entries_length % entry_size != 0 ||
      entries_length / entry_size > max_entries) {
    return std::nullopt;
  }
  const Bytes entries = payload.subspan(8, entries_length);
  const std::size_t options_length = load32(payload.data() + 8 + entries_length);
  if (options_length > payload.size() - 12 - entries_length) return std::nullopt;
  Bytes options = payload.subspan(12 + entries_length, options_length);

  Discovery_message message;
  message.reboot = (flags & reboot_flag) != 0;
  message.unicast = (flags & unicast_flag) != 0;
  message.explicit_initial_data = (flags & explicit_initial_data_flag) != 0;
  message.entries.reserve(entries_length / entry_size);
  for (std::size_t at = 0; at < entries_length; at += entry_size) {
    if (const auto entry = read_entry(entries.data() + at)) message.entries.push_back(*entry);
  }
  while (options.size() >= 3 && message.options.size() < 256 + 15) {
    const std::size_t length = load16(options.data());
    // A cut option ends the array: entries that refer to it fail, the others stand.
    if (length > options.size() - 3) break;
    message.options.push_back(read_option(load8(options.data() + 2), options.subspan(3, length)));
    options = options.subspan(3 + length);
  }
  return message;
}

bool is_configuration(Bytes content) {
  if (content.empty()) return false;
  content = content.subspan(1);  // reserved
  while (!content.empty()) {
    const std::size_t length = load8(content.data());
    content = content.subspan(1);
    if (length == 0) return content.empty();
    if (length > content.size()) return false;
    const Bytes item = content.first(length);
    content = content.subspan(length);
    const Bytes name(item.begin(), std::ranges::find(item, std::byte{'='}));
    const auto printable = [](std::byte c) { return c >= std::byte{0x20} && c <= std::byte{0x7E}; };
    const auto blank = [](std::byte c) { return c == std::byte{' '}; };
    if (!std::ranges::all_of(name, printable) || std::ranges::all_of(name, blank)) return false;
  }
  return false;  // no closing zero
}

bool Discovery_writer::add_all(std::span<const Entry> entries, const std::vector<Option>& options) {
  std::array<Entry::Run, 2> runs{};
  assert(options.size() <= runs.size());
  std::vector<std::vector<std::byte>> added;
  std::size_t added_bytes = 0;
  for (std::size_t i = 0; i < options.size(); ++i) {
    auto bytes = option_bytes(options[i]);
    auto found = std::ranges::find(options_, bytes);
    std::size_t index = static_cast<std::size_t>(found - options_.begin());
    if (found == options_.end()) {
      index += static_cast<std::size_t>(std::ranges::find(added, bytes) - added.begin());
      if (index == options_.size() + added.size()) {
        added_bytes += bytes.size();
        added.push_back(std::move(bytes));
      }
    }
    if (index > 0xFF) return false;
    runs[i] = {static_cast<std::uint8_t>(index), 1};
  }
  added_bytes += entry_size * entries.size();
  if (12 + entries_.size() + options_bytes_ + added_bytes > max_payload) return false;
  for (Entry entry : entries) {
    entry.runs = runs;
    append_entry(entry, entries_);
  }
  options_bytes_ += added_bytes - entry_size * entries.size();
  std::ranges::move(added, std::back_inserter(options_));
  return true;
}

std::vector<std::byte> Discovery_writer::message(std::uint16_t session, bool reboot) const {
  const std::size_t payload_size = 12 + entries_.size() + options_bytes_;
  Header header;
  header.service = discovery_service;
  header.method = discovery_method;
  header.session = session;
  header.interface_version = 1;
  header.type = static_cast<std::uint8_t>(Message_type::notification);
  const Header_bytes head = header_bytes(header, payload_size);

  std::vector<std::byte> bytes(head.begin(), head.end());
  bytes.reserve(header_size + payload_size);
  const auto append32 = [&](std::uint32_t value) {
    bytes.resize(bytes.size() + 4);
    store32(bytes.data() + bytes.size() - 4, value);
  };
  const auto flags = static_cast<std::uint8_t>((reboot ? reboot_flag : 0) | unicast_flag |
                                               explicit_initial_data_flag);
  append32(std::uint32_t{flags} << 24);
  append32(static_cast<std::uint32_t>(entries_.size()));
  bytes.insert(bytes.end(), entries_.begin(), entries_.end());
  append32(static_cast<std::uint32_t>(options_bytes_));
  for (const auto& option : options_)
    bytes.insert(bytes.end(), option.begin(), option.end());
  return bytes;
}

}  // namespace someip
