/// Log messages as lines of text on standard error.
#pragma once

#include <string>
#include <string_view>

#include "ara/log/common.h"

namespace ara::log {

/// "2026/11/24 20:32:00.459871 info POS GNSS text\n", local time. Control characters in `text`
/// become blanks, so that nothing a peer sends can forge a line.
[[nodiscard]] std::string FormatLine(LogLevel level,
                                     std::string_view application,
                                     std::string_view context,
                                     std::string_view text);

/// Writes the line in one piece. A reader that does not read delays the caller by a second at most,
/// then the line is dropped.
void WriteToStandardError(std::string_view line) noexcept;

}  // namespace ara::log
