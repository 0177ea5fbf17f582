#include "platform/someip/wire/local_frame.h"

#include <algorithm>

namespace someip {

namespace {

std::vector<std::byte> begin_frame(const Local_head& head, std::size_t message_size) {
  std::vector<std::byte> bytes;
  bytes.reserve(local_head_size + message_size);
  bytes.resize(local_head_size);
  store8(bytes.data(), static_cast<std::uint8_t>(head.kind));
  store16(bytes.data() + 2, head.port);
  return bytes;
}

void append_to(std::vector<std::byte>& bytes, Bytes added) {
  bytes.insert(bytes.end(), added.begin(), added.end());
}

}  // namespace

std::vector<std::byte> local_frame_bytes(const Local_head& head, Bytes message) {
  auto bytes = begin_frame(head, message.size());
  append_to(bytes, message);
  return bytes;
}

std::vector<std::byte> local_frame_bytes(const Local_head& head,
                                         const Header& header,
                                         Bytes payload) {
  auto bytes = begin_frame(head, header_size + payload.size());
  append_to(bytes, header_bytes(header, payload.size()));
  append_to(bytes, payload);
  return bytes;
}

void Local_frame_reader::append(Bytes received) {
  buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(begin_));
  begin_ = 0;
  if (!broken_) append_to(buffer_, received);
}

std::optional<Local_frame> Local_frame_reader::next() {
  const Bytes rest = Bytes(buffer_).subspan(begin_);
  if (broken_ || rest.size() < local_head_size) return std::nullopt;
  const std::uint8_t kind = load8(rest.data());
  const Bytes message = rest.subspan(local_head_size);
  const auto header = read_header(message);
  const std::size_t size = header ? std::size_t{8} + header->length : header_size;
  if (kind > static_cast<std::uint8_t>(Local_kind::tcp) || load8(rest.data() + 1) != 0 ||
      size < header_size || size > max_message_) {
    broken_ = true;
    begin_ = buffer_.size();
    return std::nullopt;
  }
  if (message.size() < size) return std::nullopt;
  begin_ += local_head_size + size;
  return Local_frame{{static_cast<Local_kind>(kind), load16(rest.data() + 2)}, message.first(size)};
}

}  // namespace someip
