#include <array>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/monitor_reports.h"
#include "tools/posctl/printer.h"
#include "tools/posctl/verdict.h"
#include "tools/stop_signal.h"

namespace posctl {
namespace {

using diagnosisService::Monitor;
using diagnosisService::monitor_table;
using mw::dm::dem::MonitorActionType;

std::string line_of(const Monitor& monitor, MonitorActionType action, bool as_json) {
  if (as_json) return report_json(monitor, action).dump();
  return clock_time(0) + " " + identifier_of(monitor) + " " + std::string(monitor.name) + " " +
         text_of(action);
}

std::string state_line(const Monitor& monitor,
                       const binding::Diagnosis_state& state,
                       bool as_json) {
  const Json json = state_json(monitor, state);
  if (as_json) return json.dump();
  std::string line = identifier_of(monitor) + " " + std::string(monitor.name);
  line.resize(std::max<std::size_t>(line.size() + 1, 52), ' ');
  if (json["status"].is_null()) return line + "no status of its own: see posctl read all";
  return line + json["status"].get<std::string>() + " since " +
         clock_time(json["sinceS"].get<double>());
}

/// A line for each monitor as it is now. Returns without one if the application has no statistics.
void print_states(Printer& printer, const Monitor_options& options) {
  std::unique_ptr<binding::Statistics_proxy> service;
  const double seconds = options.timeout == 0 ? 2 : options.timeout;
  try {
    const auto deadline = deadline_in(seconds);
    service = connect<binding::Statistics_proxy>(binding::Statistics::name, deadline);
    const auto state =
        result_of(service->Diagnosis(), binding::Statistics::Diagnosis.name, deadline);
    for (const auto& monitor : monitor_table)
      printer.remark(state_line(monitor, state, options.json));
  } catch (const std::runtime_error&) {
    // A vehicle may leave the statistics out. The reports still may come.
  }
}

/// Until it is interrupted, or `options` are fulfilled or exceeded.
void print_monitors(const Monitor_options& options, tools::Stop_signal& stop_signal) {
  Printer printer(options.count);
  if (!options.reports_only) print_states(printer, options);
  bool timed_out = false;
  bool found = false;
  {
    const Monitor_reports reports([&](const Monitor& monitor, MonitorActionType action) {
      printer.print(line_of(monitor, action, options.json));
    });
    timed_out = printer.wait(stop_signal, options.timeout);
    found = reports.found();
  }
  printer.check();

  if (!timed_out || (options.count == 0 && found)) return;
  std::array<char, 48> after{};
  std::snprintf(after.data(), after.size(), "after %g s: ", options.timeout);
  if (!found) throw tools::No_answer(after.data() + std::string("no monitor was offered"));
  throw std::runtime_error(after.data() + std::to_string(printer.printed()) + " of " +
                           std::to_string(options.count) + " monitor actions came");
}

}  // namespace

int monitors(const Monitor_options& options) {
  tools::Stop_signal stop_signal;  // before the runtime has threads
  on_the_way(options.way, [&] { print_monitors(options, stop_signal); });
  return 0;
}

int init_monitor(const Init_monitor_options& options) {
  const auto instance = monitor_instance(options.monitor);
  const std::string effect = on_the_way(options.way, [&] {
    return initialise_monitor(instance, init_reason(options.reason), deadline_in(options.timeout));
  });
  tools::write_output(options.monitor + " initialised with " + options.reason + ": " + effect +
                      "\n");
  return 0;
}

}  // namespace posctl
