/// The levels of all log contexts of the process, for tools.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ara/log/common.h"

namespace ara::log {

/// Each context's id and level, in the order of the ids. Any thread may call, after InitLogging.
[[nodiscard]] std::vector<std::pair<std::string, LogLevel>> LevelsInForce();

/// Holds until the daemon or another call sets another level. Returns false if there is no such
/// context. Never blocks; any thread may call, after InitLogging.
bool SetLevelOf(std::string_view ctx_id, LogLevel level);

/// The level of a name that NameOf() gives.
[[nodiscard]] std::optional<LogLevel> LevelNamed(std::string_view name);

}  // namespace ara::log
