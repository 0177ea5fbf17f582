#include "platform/someip/wire/stream_reader.h"

#include <algorithm>
#include <cstring>

namespace someip {

Header_bytes magic_cookie(bool from_client) {
  Header header;
  header.service = 0xFFFF;
  header.method = from_client ? 0x0000 : 0x8000;
  header.client = 0xDEAD;
  header.session = 0xBEEF;
  header.interface_version = 1;
  header.type = static_cast<std::uint8_t>(from_client ? Message_type::request_no_return
                                                      : Message_type::notification);
  return header_bytes(header, 0);
}

void Stream_reader::append(Bytes received) {
  buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(begin_));
  begin_ = 0;
  buffer_.insert(buffer_.end(), received.begin(), received.end());
}

bool Stream_reader::find_cookie() {
  static const Header_bytes client_cookie = magic_cookie(true);
  static const Header_bytes server_cookie = magic_cookie(false);
  // One pass for both cookies: with a pass for each, every cookie of one kind would cause a new
  // pass over the rest of the stream for the other kind.
  const auto begins_cookie = [](const std::byte* at) {
    return std::memcmp(at, client_cookie.data(), header_size) == 0 ||
           std::memcmp(at, server_cookie.data(), header_size) == 0;
  };
  for (std::size_t at = begin_; at + header_size <= buffer_.size(); ++at) {
    if (!begins_cookie(buffer_.data() + at)) continue;
    begin_ = at;
    return true;
  }
  // A cookie may begin in the last bytes.
  begin_ = std::max(begin_, buffer_.size() - std::min(buffer_.size(), header_size - 1));
  return false;
}

std::optional<Message_view> Stream_reader::next() {
  static const auto client_cookie = *read_header(magic_cookie(true));
  static const auto server_cookie = *read_header(magic_cookie(false));
  for (;;) {
    if (searching_) {
      if (!find_cookie()) return std::nullopt;
      searching_ = false;
    }
    const Bytes rest = Bytes(buffer_).subspan(begin_);
    const auto header = read_header(rest);
    if (!header) return std::nullopt;
    const std::size_t size = std::size_t{8} + header->length;
    if (header->length < length_before_payload || size > max_message_ ||
        header->protocol != protocol_version) {
      ++resynchronisations_;
      searching_ = true;
      ++begin_;  // no cookie begins here
      continue;
    }
    if (rest.size() < size) return std::nullopt;
    begin_ += size;
    if (*header == client_cookie || *header == server_cookie) continue;
    return Message_view{*header, rest.subspan(header_size, size - header_size)};
  }
}

}  // namespace someip
