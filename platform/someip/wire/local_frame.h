/// SOME/IP through a Unix socket: a head before each message replaces the addresses that a datagram
/// has on the network.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "platform/someip/wire/message.h"

namespace someip {

enum class Local_kind : std::uint8_t {
  discovery = 0,         ///< service discovery for the receiver
  discovery_to_all = 1,  ///< service discovery that goes to the group too
  udp = 2,               ///< a message of an instance that uses UDP on the network
  tcp = 3,               ///< the same for TCP
};

/// On the wire: kind, a zero byte, port.
struct Local_head {
  Local_kind kind = Local_kind::discovery;
  std::uint16_t port = 0;  ///< that the instance has on the network, in both directions
  friend bool operator==(const Local_head&, const Local_head&) = default;
};
inline constexpr std::size_t local_head_size = 4;

struct Local_frame {
  Local_head head;
  Bytes message;  ///< with its SOME/IP header
};

[[nodiscard]] std::vector<std::byte> local_frame_bytes(const Local_head& head, Bytes message);
/// The same for a message that is not yet in one piece. Sets `header.length`.
[[nodiscard]] std::vector<std::byte> local_frame_bytes(const Local_head& head,
                                                       const Header& header,
                                                       Bytes payload);

/// Collects received bytes and returns whole frames. Ends at the first bytes that cannot be a
/// frame: both ends are programs of this system, so such a stream is not worth searching.
class Local_frame_reader {
 public:
  /// `max_message` bounds one message, its header included.
  explicit Local_frame_reader(std::size_t max_message) : max_message_(max_message) {}

  void append(Bytes received);
  /// The next whole frame, valid until the next append().
  [[nodiscard]] std::optional<Local_frame> next();
  [[nodiscard]] bool broken() const { return broken_; }
  /// Bytes held for an incomplete frame.
  [[nodiscard]] std::size_t held() const { return buffer_.size() - begin_; }

 private:
  std::size_t max_message_;
  std::vector<std::byte> buffer_;
  std::size_t begin_ = 0;  ///< of the bytes not yet returned
  bool broken_ = false;
};

}  // namespace someip
