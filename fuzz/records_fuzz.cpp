// Records of the services, alone and in vectors, as a peer's notification brings them.
#include "fuzz/payload_types.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Record_types::check(data, size);
  return 0;
}
