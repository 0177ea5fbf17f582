// Meta information of a diagnostic request: the only argument that a tester can send.
#include "fuzz/payload_types.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::String_types::check(data, size);
  return 0;
}
