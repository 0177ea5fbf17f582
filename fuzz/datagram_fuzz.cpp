// One datagram: its SOME/IP headers and the messages in it.
#include "fuzz/input.h"
#include "platform/someip/wire/message.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using fuzz::require;
  const fuzz::Bytes datagram = fuzz::Input{data, size}.rest();
  someip::Datagram_reader reader(datagram);
  std::size_t taken = 0;
  while (const auto message = reader.next()) {
    require(message->payload.data() == datagram.data() + taken + someip::header_size,
            "a payload follows its header");
    const auto bytes = someip::header_bytes(message->header, message->payload.size());
    require(std::ranges::equal(bytes, datagram.subspan(taken, someip::header_size)),
            "a header that was read writes the same bytes");
    taken += someip::header_size + message->payload.size();
    require(taken <= datagram.size(), "a message ends inside the datagram");
  }
  require(reader.malformed() == (taken < datagram.size()), "what is no message is reported");
  require(!reader.next(), "the end is the end");
  return 0;
}
