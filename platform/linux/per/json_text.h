/// The text of a store: a JSON object with one typed entry per key, one line each.
///
///     {
///       "interval": {"type": "UInt32", "value": 1000},
///       "calibration": {"type": "Binary", "value": "00ff10"}
///     }
///
/// Binary values are hexadecimal digits. A Float or Double that is not a number or not finite is
/// the text "NaN", "Infinity" or "-Infinity".
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "ara/per/kvs_type.h"

namespace ara::per {

using Values = std::map<std::string, KvsType, std::less<>>;

/// Throws ExceptionValidation, which begins with `path` and names line and column of broken JSON,
/// else the key and the expected content. The memory used grows with the accepted text, not with
/// the refused text.
[[nodiscard]] Values parse_values(std::string_view text, const std::string& path);

/// Every key and text must be UTF-8.
[[nodiscard]] std::string to_text(const Values& values);

[[nodiscard]] bool is_utf8(const std::string& text);

}  // namespace ara::per
