#include "platform/linux/log/level_settings.h"

#include <algorithm>
#include <array>

#include "ara/log/levels.h"

namespace ara::log {
namespace {

constexpr std::array<std::string_view, 7> names{"off",  "fatal", "error",  "warn",
                                                "info", "debug", "verbose"};

}  // namespace

std::optional<LogLevel> LevelNamed(std::string_view name) {
  const auto found = std::find(names.begin(), names.end(), name);
  if (found == names.end()) return std::nullopt;
  return static_cast<LogLevel>(found - names.begin());
}

std::string_view NameOf(LogLevel level) {
  const auto index = static_cast<std::size_t>(level);
  return index < names.size() ? names[index] : std::string_view("unknown");
}

Level_settings Level_settings::parse(std::string_view text) {
  Level_settings settings;
  while (!text.empty()) {
    const std::string_view entry = text.substr(0, text.find(','));
    text.remove_prefix(std::min(entry.size() + 1, text.size()));
    if (entry.empty()) continue;
    const std::size_t equals = entry.find('=');
    const std::string_view context =
        equals == std::string_view::npos ? std::string_view() : entry.substr(0, equals);
    const auto level =
        LevelNamed(equals == std::string_view::npos ? entry : entry.substr(equals + 1));
    if (!level || (equals != std::string_view::npos && (context.empty() || context.size() > 4))) {
      settings.complaint += settings.complaint.empty() ? "\"" : ", \"";
      settings.complaint += entry;
      settings.complaint += '"';
    } else if (context.empty()) {
      settings.general = *level;
    } else {
      settings.contexts.insert_or_assign(std::string(context), *level);
    }
  }
  return settings;
}

}  // namespace ara::log
