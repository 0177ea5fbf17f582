/// The messages of service discovery: entries, the options that they refer to, and the bytes of
/// both.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/someip/base/byte_order.h"
#include "platform/someip/base/endpoint.h"
#include "platform/someip/wire/message.h"

namespace someip {

inline constexpr std::uint16_t discovery_service = 0xFFFF;
inline constexpr std::uint16_t discovery_method = 0x8100;
inline constexpr std::uint16_t any_instance = 0xFFFF;
inline constexpr std::uint8_t any_major_version = 0xFF;
inline constexpr std::uint32_t any_minor_version = 0xFFFFFFFF;
inline constexpr std::uint32_t endless_ttl = 0xFFFFFF;

enum class Entry_type : std::uint8_t {
  find_service = 0x00,
  offer_service = 0x01,  ///< with time to live 0: stop offer
  subscribe = 0x06,      ///< with time to live 0: stop subscribe
  subscribe_ack = 0x07,  ///< with time to live 0: refusal
};

enum class Option_type : std::uint8_t {
  configuration = 0x01,
  load_balancing = 0x02,
  ipv4_endpoint = 0x04,
  ipv6_endpoint = 0x06,
  ipv4_multicast = 0x14,
  ipv6_multicast = 0x16,
  ipv4_discovery_endpoint = 0x24,
  ipv6_discovery_endpoint = 0x26,
};

inline constexpr std::uint8_t tcp_protocol = 0x06;
inline constexpr std::uint8_t udp_protocol = 0x11;

struct Entry {
  struct Run {
    std::uint8_t index = 0;
    std::uint8_t count = 0;  ///< 0 to 15; 0: the index means nothing
    friend bool operator==(const Run&, const Run&) = default;
  };

  Entry_type type = Entry_type::find_service;
  std::array<Run, 2> runs{};
  std::uint16_t service = 0;
  std::uint16_t instance = 0;
  std::uint8_t major_version = 0;
  std::uint32_t ttl = 0;            ///< seconds, 24 bits
  std::uint32_t minor_version = 0;  ///< of service entries
  /// Of event group entries: reserved (8 bits), initial data requested, reserved (3), counter (4).
  /// An answer repeats them as they came (someipsd_614).
  std::uint16_t flags = 0;
  std::uint16_t event_group = 0;

  [[nodiscard]] bool about_event_group() const {
    return type == Entry_type::subscribe || type == Entry_type::subscribe_ack;
  }
  static constexpr std::uint16_t initial_data_flag = 0x80;
  [[nodiscard]] bool initial_data_requested() const { return (flags & initial_data_flag) != 0; }
  [[nodiscard]] std::uint8_t counter() const { return static_cast<std::uint8_t>(flags & 0x0F); }
  friend bool operator==(const Entry&, const Entry&) = default;
};

struct Option {
  std::uint8_t type = 0;      ///< any value; unknown ones are kept so that the indexes stay right
  bool valid = true;          ///< false: a known type whose length or content contradicts it
  std::uint8_t protocol = 0;  ///< of endpoint and multicast options
  Endpoint endpoint;
  std::vector<std::byte>
      content;  ///< of configuration and load balancing options, from the reserved byte on

  [[nodiscard]] bool is(Option_type wanted) const {
    return type == static_cast<std::uint8_t>(wanted);
  }
  [[nodiscard]] static Option unicast(const Endpoint& endpoint, std::uint8_t protocol);
  [[nodiscard]] static Option multicast(const Endpoint& endpoint);
};

/// The content of all options of one entry.
struct Entry_options {
  bool fault = false;  ///< a reference beyond the array, an invalid option, or two that contradict
  std::optional<Endpoint> udp;
  std::optional<Endpoint> tcp;
  std::optional<Endpoint> multicast;
};

struct Discovery_message {
  bool reboot = false;
  bool unicast = true;
  bool explicit_initial_data = true;
  std::vector<Entry> entries;
  std::vector<Option> options;

  /// The options that `entry` refers to. Those of the other address family than `ipv4` says,
  /// unknown ones and those that no such entry needs are ignored.
  [[nodiscard]] Entry_options options_of(const Entry& entry, bool ipv4) const;
  /// The endpoint to which answers go, if the message names one in place of the sender's
  /// (someipsd_1084).
  [[nodiscard]] std::optional<Endpoint> discovery_endpoint(bool ipv4) const;
};

/// Reads the payload of a discovery message. Empty when the lengths of its arrays contradict its
/// size or it holds more than `max_entries` entries. Entries of unknown type are left out.
[[nodiscard]] std::optional<Discovery_message> read_discovery_message(Bytes payload,
                                                                      std::size_t max_entries);

/// True for the content of a configuration option: names, each with or without a value.
[[nodiscard]] bool is_configuration(Bytes content);

/// Packs entries into one message and stores each different option once.
class Discovery_writer {
 public:
  /// Adds an entry, or several that have the same options, at most two; their runs are set here.
  /// False, and nothing added, when the message would grow beyond one unfragmented datagram.
  [[nodiscard]] bool add(const Entry& entry, const std::vector<Option>& options) {
    return add_all(std::span(&entry, 1), options);
  }
  [[nodiscard]] bool add_all(std::span<const Entry> entries, const std::vector<Option>& options);
  [[nodiscard]] bool empty() const { return entries_.empty(); }
  /// The whole SOME/IP message.
  [[nodiscard]] std::vector<std::byte> message(std::uint16_t session, bool reboot) const;

 private:
  std::vector<std::byte> entries_;
  std::vector<std::vector<std::byte>> options_;
  std::size_t options_bytes_ = 0;
};

}  // namespace someip
