/// The text of a store: a JSON object with one typed entry per key, one line each.
///
///     {
///       "interval": {"type": "UInt32", "value": 1000},
///       "calibration": {"type": "Binary", "value": "00ff10"}
///     }
///
/// Binary values are hexadecimal digits; a Float or Double that is no number is the text "NaN",
/// "Infinity" or "-Infinity".
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "ara/per/kvs_type.h"

namespace ara::per {

using Values = std::map<std::string, KvsType, std::less<>>;

/// Throws ExceptionValidation that begins with `path`: line and column for broken JSON, else the
/// key and what was expected of it. Needs memory in proportion to what it accepts, not to what it
/// refuses.
[[nodiscard]] Values ParseValues(std::string_view text, const std::string& path);

/// Every key and text must be UTF-8.
[[nodiscard]] std::string ToText(const Values& values);

[[nodiscard]] bool IsUtf8(const std::string& text);

}  // namespace ara::per
