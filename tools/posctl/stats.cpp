#include "mw/com/runtime.h"
#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/statistics_page.h"

namespace posctl {

using binding::Statistics;
using binding::Statistics_proxy;

Json read_statistics(Statistics_proxy& service, Deadline deadline) {
  Json json;
  json["process"] = to_json(result_of(service.Process(), Statistics::Process.name, deadline));
  Json& counters = json["counters"] = Json::object();
  for (const auto& [name, value] :
       result_of(service.Counters(), Statistics::Counters.name, deadline)) {
    counters[name] = value;
  }
  return json;
}

void print_process(Page& page, const Json& process) {
  constexpr double mebibyte = 1024.0 * 1024.0;
  const Json shown{{"uptime", process["uptimeMs"].get<double>() / 1000},
                   {"resident", process["residentBytes"].get<double>() / mebibyte}};
  page.section("Process");
  page.item("uptime", decimal(shown, "uptime", 1, "s"));
  page.item("resident memory", decimal(shown, "resident", 1, "MiB"));
  page.item("threads", process["threads"].dump());
}

void print_counters(Page& page, const Json& counters) {
  page.section("Counters");
  for (const auto& [name, value] : counters.items())
    page.item(name, value.dump());
}

int stats(const Look_options& options) {
  const mw::com::runtime::Component_singleton runtime(options.node, false);
  const auto deadline = deadline_in(options.timeout);
  const auto service = connect<Statistics_proxy>(Statistics::name, deadline);
  const Json json = read_statistics(*service, deadline);
  if (options.json) {
    tools::write_output(json.dump() + "\n");
    return 0;
  }
  Page page;
  print_process(page, json["process"]);
  print_counters(page, json["counters"]);
  tools::write_output(page.take());
  return 0;
}

}  // namespace posctl
