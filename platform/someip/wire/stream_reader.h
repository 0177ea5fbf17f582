/// SOME/IP over TCP: messages from a byte stream cut anywhere, and the magic cookies between them.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "platform/someip/wire/message.h"

namespace someip {

/// The cookie that marks a message boundary (someip_609). `from_client` is the direction.
[[nodiscard]] Header_bytes magic_cookie(bool from_client);

/// Collects received bytes and returns whole messages. After bytes that cannot be a header,
/// searches the stream for the next magic cookie. Drops the bytes in between and counts the search.
class Stream_reader {
 public:
  /// `max_message` bounds one message, header included.
  explicit Stream_reader(std::size_t max_message) : max_message_(max_message) {}

  void append(Bytes received);
  /// The next whole message, valid until the next append(). Skips cookies silently.
  [[nodiscard]] std::optional<Message_view> next();

  /// The number of searches for a cookie.
  [[nodiscard]] std::size_t resynchronisations() const { return resynchronisations_; }
  /// Bytes held for an incomplete message.
  [[nodiscard]] std::size_t held() const { return buffer_.size() - begin_; }

 private:
  [[nodiscard]] bool find_cookie();

  std::size_t max_message_;
  std::vector<std::byte> buffer_;
  std::size_t begin_ = 0;  ///< of the bytes not yet returned
  bool searching_ = false;
  std::size_t resynchronisations_ = 0;
};

}  // namespace someip
