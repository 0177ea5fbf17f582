/// Reading a JSON document that a person has written, and refusing what a parser would let pass.
#pragma once

#include <string>
#include <string_view>

#include "platform/linux/com/json_reader.h"

namespace tq::com {

/// Throws std::runtime_error naming `source` and the place: for what is not JSON, for a key that an
/// object has twice (a parser would lose the first one), and for a document that takes too long to
/// visit.
[[nodiscard]] Json_reader::Json parse_document(std::string_view text, const std::string& source);

}  // namespace tq::com
