/// Reads a JSON document that a person has written, and refuses mistakes that a parser accepts.
#pragma once

#include <string>
#include <string_view>

#include "platform/linux/com/json_reader.h"

namespace tq::com {

/// Throws std::runtime_error naming `source` and the place in three cases: the text is not JSON; an
/// object has a key twice (a parser would lose the first one); the document takes too long to
/// visit.
[[nodiscard]] Json_reader::Json parse_document(std::string_view text, const std::string& source);

}  // namespace tq::com
