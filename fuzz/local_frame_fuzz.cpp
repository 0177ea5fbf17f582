// The stream of a Unix socket: however it is cut, the same frames come out, and writing them gives
// the same bytes again.
#include <vector>

#include "fuzz/input.h"
#include "platform/someip/wire/local_frame.h"

namespace {

/// Appends the bytes of the frames that are whole.
void drain(someip::Local_frame_reader& reader, std::vector<std::byte>& seen) {
  while (const auto frame = reader.next()) {
    const auto bytes = someip::local_frame_bytes(frame->head, frame->message);
    seen.insert(seen.end(), bytes.begin(), bytes.end());
  }
}

}  // namespace

// Bound of a message, length of the pieces, the stream.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using fuzz::require;
  fuzz::Input input{data, size};
  const std::size_t max_message = someip::header_size + input.u16() % 2048U;
  const std::size_t piece_size = input.u8() + 1U;
  const fuzz::Bytes stream = input.rest();

  someip::Local_frame_reader at_once(max_message);
  std::vector<std::byte> whole;
  at_once.append(stream);
  drain(at_once, whole);

  someip::Local_frame_reader cut(max_message);
  std::vector<std::byte> in_pieces;
  for (fuzz::Bytes rest = stream; !rest.empty();) {
    const auto piece = rest.first(std::min(rest.size(), piece_size));
    rest = rest.subspan(piece.size());
    cut.append(piece);
    drain(cut, in_pieces);
    require(cut.held() < someip::local_head_size + max_message,
            "no more is held than a frame that is not complete");
  }

  require(whole == in_pieces, "frames do not depend on how the stream was cut");
  require(at_once.broken() == cut.broken(), "nor does the end of the stream");
  require(whole.size() <= stream.size() && std::ranges::equal(whole, stream.first(whole.size())),
          "the frames are the beginning of the stream");
  return 0;
}
