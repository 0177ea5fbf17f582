// A TCP stream: however it is cut, the same messages come out.
#include <vector>

#include "fuzz/input.h"
#include "platform/someip/wire/stream_reader.h"

namespace {

struct Seen {
  someip::Header header;
  std::vector<std::byte> payload;
  friend bool operator==(const Seen&, const Seen&) = default;
};

void drain(someip::Stream_reader& reader, std::vector<Seen>& seen) {
  while (const auto message = reader.next()) {
    seen.push_back({message->header, {message->payload.begin(), message->payload.end()}});
  }
}

}  // namespace

// Bound of a message, lengths of the first pieces (0 ends the list), the stream.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using fuzz::require;
  fuzz::Input input{data, size};
  const std::size_t max_message = someip::header_size + input.u16() % 2048U;
  std::vector<std::size_t> pieces;
  for (auto piece = input.u8(); piece != 0 && pieces.size() < 32; piece = input.u8()) {
    pieces.push_back(piece);
  }
  const fuzz::Bytes stream = input.rest();

  someip::Stream_reader at_once(max_message);
  std::vector<Seen> whole;
  at_once.append(stream);
  drain(at_once, whole);

  someip::Stream_reader cut(max_message);
  std::vector<Seen> in_pieces;
  fuzz::Bytes rest = stream;
  for (std::size_t i = 0; !rest.empty(); ++i) {
    const auto piece =
        rest.first(std::min(rest.size(), pieces.empty() ? 1 : pieces[i % pieces.size()]));
    rest = rest.subspan(piece.size());
    cut.append(piece);
    drain(cut, in_pieces);
    require(cut.held() < max_message, "no more is held than a message that is not complete");
  }

  require(whole == in_pieces, "messages do not depend on how the stream was cut");
  require(at_once.resynchronisations() == cut.resynchronisations(), "nor does resynchronisation");
  for (const Seen& message : whole) {
    require(someip::header_size + message.payload.size() <= max_message, "a message has a bound");
  }
  return 0;
}
