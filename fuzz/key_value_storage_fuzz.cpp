// The file of a key-value storage: it either is refused with a reason or survives being written.
#include <cmath>
#include <string>
#include <string_view>

#include "ara/per/exceptions.h"
#include "fuzz/input.h"
#include "platform/linux/per/json_text.h"

namespace {

using ara::per::KvsType;

bool same(const KvsType& a, const KvsType& b) {
  if (a.GetType() != b.GetType()) return false;
  if (a.GetType() == KvsType::Type::kFloat && std::isnan(a.GetFloat())) {
    return std::isnan(b.GetFloat());
  }
  if (a.GetType() == KvsType::Type::kDouble && std::isnan(a.GetDouble())) {
    return std::isnan(b.GetDouble());
  }
  return a == b;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using fuzz::require;
  const std::string text(reinterpret_cast<const char*>(data), size);
  ara::per::Values values;
  try {
    values = ara::per::parse_values(text, "store.json");
  } catch (const ara::per::ExceptionValidation& error) {
    require(std::string_view(error.what()).find("store.json") != std::string_view::npos,
            "an error names the file");
    return 0;
  }
  const std::string written = ara::per::to_text(values);
  const ara::per::Values again = ara::per::parse_values(written, "store.json");
  require(std::ranges::equal(values, again,
                             [](const auto& a, const auto& b) {
                               return a.first == b.first && same(a.second, b.second);
                             }),
          "what was read is what is read after writing");
  require(ara::per::to_text(again) == written, "the text of a store depends on its values alone");
  return 0;
}
