// Meta information of a diagnostic request: the only argument that a tester can send.
#include "fuzz/codec_promises.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using Strings = std::vector<std::string>;
  fuzz::Codec_types<std::map<std::string, std::string>, std::string, Strings>::check(data, size);
  return 0;
}
