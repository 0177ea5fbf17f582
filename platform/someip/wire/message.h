/// The header of every SOME/IP message, and the split of a datagram into its messages.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "platform/someip/base/byte_order.h"
#include "tq/com/types.h"

namespace someip {

enum class Message_type : std::uint8_t {
  request = 0x00,
  request_no_return = 0x01,
  notification = 0x02,
  response = 0x80,
  error = 0x81,
};

using tq::com::Return_code;

inline constexpr std::size_t header_size = 16;
/// The part of the length field before the payload: everything from the request id on.
inline constexpr std::uint32_t length_before_payload = 8;
inline constexpr std::uint8_t protocol_version = 1;
/// Set in the message type of a segment.
inline constexpr std::uint8_t segment_flag = 0x20;

/// A message's header. Message types and return codes keep the received value: a peer may send one
/// that is unknown here.
struct Header {
  std::uint16_t service = 0;
  std::uint16_t method = 0;
  std::uint32_t length = length_before_payload;
  std::uint16_t client = 0;
  std::uint16_t session = 0;
  std::uint8_t protocol = protocol_version;
  std::uint8_t interface_version = 0;
  std::uint8_t type = 0;
  std::uint8_t code = 0;

  [[nodiscard]] bool is(Message_type wanted) const {
    return type == static_cast<std::uint8_t>(wanted);
  }
  [[nodiscard]] bool segmented() const { return (type & segment_flag) != 0; }
  friend bool operator==(const Header&, const Header&) = default;
};

using Header_bytes = std::array<std::byte, header_size>;

/// Empty if `bytes` is shorter than a header. Makes no other check.
[[nodiscard]] std::optional<Header> read_header(Bytes bytes);
void write_header(const Header& header, std::byte* at);
/// The header's bytes, with the length set for a payload of `payload_size`.
[[nodiscard]] Header_bytes header_bytes(Header header, std::size_t payload_size);

/// A message inside a buffer with another owner.
struct Message_view {
  Header header;
  Bytes payload;
};

/// Splits a datagram into its messages (someip_319).
class Datagram_reader {
 public:
  explicit Datagram_reader(Bytes datagram) : rest_(datagram) {}

  /// The next message; empty at the end, and at the first message that does not fit.
  [[nodiscard]] std::optional<Message_view> next();
  /// True after bytes that are no message: a cut header, or a length below 8 or beyond the end.
  [[nodiscard]] bool malformed() const { return malformed_; }

 private:
  Bytes rest_;
  bool malformed_ = false;
};

}  // namespace someip
