/// The last lines of the log of this process, for tools.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ara/log/common.h"

namespace ara::log {

struct Recent_line {
  std::uint64_t time_us = 0;  ///< since 1970, on the system clock
  LogLevel level{};
  std::string context;
  std::string text;
};

struct Recent_lines {
  std::uint64_t next = 0;  ///< number of the first line that has not come yet or did not fit
  std::uint64_t lost = 0;  ///< lines before the first one here that are no longer kept
  std::vector<Recent_line> lines;
};

/// The lines from number `from` on, the oldest first, at most some 200. The log keeps its first
/// lines and those of level warn and above, within 256 KiB. For ten seconds after each call it
/// keeps every line, so a caller that asks again in time misses none. Any thread may call.
[[nodiscard]] Recent_lines LinesFrom(std::uint64_t from);

}  // namespace ara::log
