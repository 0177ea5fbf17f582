#include <array>
#include <string>
#include <vector>

#include "binding/statistics.h"
#include "tools/command.h"
#include "tools/near_name.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/connect.h"
#include "tools/posctl/record_json.h"

namespace posctl {
namespace {

using binding::Log_context_level;
using binding::Statistics;
using binding::Statistics_proxy;

constexpr std::array<std::string_view, 7> levels{"off",  "fatal", "error",  "warn",
                                                 "info", "debug", "verbose"};

Log_context_level parse(const std::string& text) {
  const auto equals = text.find('=');
  if (equals == std::string::npos) {
    throw tools::Usage_error("expected CONTEXT=LEVEL such as GNSS=debug, found \"" + text + "\"");
  }
  Log_context_level wanted{text.substr(0, equals), text.substr(equals + 1)};
  if (std::ranges::find(levels, wanted.level) == levels.end()) {
    throw tools::Usage_error("there is no log level \"" + wanted.level +
                             "\"; expected off, fatal, error, warn, info, debug or verbose" +
                             tools::did_you_mean(wanted.level, levels));
  }
  return wanted;
}

std::string refusal(const Log_context_level& wanted, Statistics_proxy& service, Deadline deadline) {
  std::vector<std::string> known;
  for (const auto& one : result_of(service.LogLevels(), Statistics::LogLevels.name, deadline))
    known.push_back(one.context);
  return "the application has no log context \"" + wanted.context + "\"" +
         tools::did_you_mean(wanted.context, known) + "\nposctl log lists them.";
}

}  // namespace

int log(const Log_options& options) {
  std::vector<Log_context_level> wanted;
  for (const auto& text : options.levels)
    wanted.push_back(parse(text));
  const auto told = on_the_way(options.way, [&] {
    const auto deadline = deadline_in(options.timeout);
    const auto service = connect<Statistics_proxy>(Statistics::name, deadline);
    for (const auto& one : wanted) {
      const auto set = result_of(service->SetLogLevel(one), Statistics::SetLogLevel.name, deadline);
      if (set.empty()) throw std::runtime_error(refusal(one, *service, deadline));
    }
    return wanted.empty() ? result_of(service->LogLevels(), Statistics::LogLevels.name, deadline)
                          : wanted;
  });
  Json json{{"schema", 1}, {"levels", Json::object()}};
  std::string text;
  for (const auto& [context, level] : told) {
    json["levels"][context] = level;
    text.append(context).append("=").append(level).append("\n");
  }
  tools::write_output(options.json ? json.dump() + "\n" : text);
  return 0;
}

}  // namespace posctl
