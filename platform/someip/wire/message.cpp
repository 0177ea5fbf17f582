#include "platform/someip/wire/message.h"

namespace someip {

std::optional<Header> read_header(Bytes bytes) {
  if (bytes.size() < header_size) return std::nullopt;
  const std::byte* at = bytes.data();
  Header header;
  header.service = load16(at);
  header.method = load16(at + 2);
  header.length = load32(at + 4);
  header.client = load16(at + 8);
  header.session = load16(at + 10);
  header.protocol = load8(at + 12);
  header.interface_version = load8(at + 13);
  header.type = load8(at + 14);
  header.code = load8(at + 15);
  return header;
}

void write_header(const Header& header, std::byte* at) {
  store16(at, header.service);
  store16(at + 2, header.method);
  store32(at + 4, header.length);
  store16(at + 8, header.client);
  store16(at + 10, header.session);
  store8(at + 12, header.protocol);
  store8(at + 13, header.interface_version);
  store8(at + 14, header.type);
  store8(at + 15, header.code);
}

Header_bytes header_bytes(Header header, std::size_t payload_size) {
  header.length = length_before_payload + static_cast<std::uint32_t>(payload_size);
  Header_bytes bytes;
  write_header(header, bytes.data());
  return bytes;
}

std::optional<Message_view> Datagram_reader::next() {
  if (rest_.empty()) return std::nullopt;
  const auto header = read_header(rest_);
  if (!header || header->length < length_before_payload ||
      header->length - length_before_payload > rest_.size() - header_size) {
    malformed_ = true;
    rest_ = {};
    return std::nullopt;
  }
  const std::size_t payload_size = header->length - length_before_payload;
  const Message_view message{*header, rest_.subspan(header_size, payload_size)};
  rest_ = rest_.subspan(header_size + payload_size);
  return message;
}

}  // namespace someip
