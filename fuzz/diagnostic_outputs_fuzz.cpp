// What the data identifiers answer and the monitors exchange, as the other side reads it.
#include "fuzz/payload_types.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Diagnostic_types::check(data, size);
  return 0;
}
