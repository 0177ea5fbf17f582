/// The environment variable for levels, such as POS_LOG_LEVEL: "info" or
/// "info,GNSS=warn,TRCE=verbose".
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "ara/log/common.h"

namespace ara::log {

struct Level_settings {
  std::optional<LogLevel> general;
  std::map<std::string, LogLevel, std::less<>> contexts;
  /// The parts that are not valid, for one warning. The other parts hold.
  std::string complaint;

  static Level_settings parse(std::string_view text);
};

}  // namespace ara::log
