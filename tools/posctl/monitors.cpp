#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "binding/statistics.h"
#include "diagnosisService/DiagnosticMonitor.h"
#include "diagnosisService/monitor_table.h"
#include "platform/linux/com/manifest.h"
#include "platform/someip/base/hexadecimal.h"
#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/connect.h"
#include "tools/posctl/explain.h"
#include "tools/posctl/near_name.h"
#include "tools/posctl/printer.h"
#include "tools/posctl/record_json.h"
#include "tools/posctl/verdict.h"
#include "tools/stop_signal.h"

namespace posctl {
namespace {

using diagnosisService::Monitor;
using diagnosisService::monitor_table;
using mw::dm::dem::DiagnosticMonitor;
using mw::dm::dem::InitMonitorReason;
using mw::dm::dem::MonitorActionType;
using mw::dm::dem::proxy::DiagnosticMonitorProxy;

std::string text_of(MonitorActionType action) {
  const auto name = binding::name_of(action);
  return name.empty() ? std::to_string(static_cast<unsigned>(action)) : std::string(name);
}

/// The monitor of each instance, by the manifest in force.
std::map<std::uint16_t, const Monitor*> monitors_by_instance() {
  std::map<std::uint16_t, const Monitor*> result;
  const auto deployment = tq::com::load_deployment();
  for (const auto& service : deployment.services) {
    if (service.name != DiagnosticMonitor::name) continue;
    for (const auto& instance : service.instances) {
      const auto* monitor =
          std::find_if(monitor_table.begin(), monitor_table.end(), [&](const Monitor& one) {
            return instance.specifier == "DiagnosticMonitor_" + std::string(one.name);
          });
      if (monitor != monitor_table.end()) result.emplace(instance.id, monitor);
    }
  }
  return result;
}

/// "0x83D101".
std::string identifier_of(const Monitor& monitor) {
  return someip::hexadecimal(monitor.identifier, 6);
}

std::string line_of(const Monitor& monitor, MonitorActionType action, bool as_json) {
  if (as_json) {
    const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
    return Json{{"schema", 1},
                {"received", now.count()},
                {"monitor", identifier_of(monitor)},
                {"name", monitor.name},
                {"action", text_of(action)}}
        .dump();
  }
  return clock_time(0) + " " + identifier_of(monitor) + " " + std::string(monitor.name) + " " +
         text_of(action);
}

/// Which of d_14a0, d_14a1 and d_14a3 has the status of a monitor; no number for none.
std::optional<std::uint8_t> group_number(const Monitor& monitor) {
  using diagnosisService::Status_group;
  if (monitor.group == Status_group::none) return std::nullopt;
  return static_cast<std::uint8_t>(static_cast<unsigned>(monitor.group) -
                                   static_cast<unsigned>(Status_group::input));
}

std::string state_line(const Monitor& monitor,
                       const binding::Diagnosis_state& state,
                       bool as_json) {
  const auto group = group_number(monitor);
  const auto found = std::ranges::find_if(state.statuses, [&](const auto& one) {
    return group && one.group == *group && one.byte == monitor.byte;
  });
  const bool known = found != state.statuses.end();
  const std::string status = known ? status_name(found->status) : "";
  if (as_json) {
    Json json{{"schema", 1}, {"monitor", identifier_of(monitor)}, {"name", monitor.name}};
    json["status"] = known ? Json(status) : Json();
    if (known) json["sinceS"] = static_cast<double>(found->sinceMs) / 1000;
    return json.dump();
  }
  std::string line = identifier_of(monitor) + " " + std::string(monitor.name);
  line.resize(std::max<std::size_t>(line.size() + 1, 52), ' ');
  if (!known) return line + "no status of its own: see posctl read all";
  return line + status + " since " + clock_time(static_cast<double>(found->sinceMs) / 1000);
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

/// The instance of a monitor, given by name or identifier.
std::uint16_t instance_of(const std::string& text) {
  for (const auto& [instance, monitor] : monitors_by_instance()) {
    if (text == monitor->name || text == identifier_of(*monitor) ||
        text == std::to_string(monitor->identifier)) {
      return instance;
    }
  }
  std::vector<std::string_view> names;
  for (const auto& monitor : monitor_table)
    names.push_back(monitor.name);
  throw tools::Usage_error("there is no monitor \"" + text +
                           "\"; one such as POS_Input_GNSS or 0x83D101 is expected" +
                           did_you_mean(text, names));
}

/// Until it is interrupted, or `options` are fulfilled or exceeded.
void print_monitors(const Monitor_options& options, tools::Stop_signal& stop_signal) {
  const auto names = monitors_by_instance();
  Printer printer(options.count);
  if (!options.reports_only) print_states(printer, options);
  // Only the handler of the search uses it until the search has ended.
  std::map<std::uint16_t, std::unique_ptr<DiagnosticMonitorProxy>> proxies;
  std::atomic<bool> found = false;

  const auto search = DiagnosticMonitorProxy::StartFindService([&](const auto& handles, auto) {
    std::erase_if(proxies, [&](const auto& known) {
      return std::none_of(handles.begin(), handles.end(), [&](const auto& handle) {
        return handle.GetInstanceId().Id() == known.first;
      });
    });
    for (const auto& handle : handles) {
      const auto name = names.find(handle.GetInstanceId().Id());
      if (name == names.end() || proxies.contains(name->first)) continue;
      found = true;
      auto& proxy = proxies[name->first];
      proxy = std::make_unique<DiagnosticMonitorProxy>(handle);
      proxy->MonitorAction.SetReceiveHandler(
          [&printer, &options, monitor = name->second, event = &proxy->MonitorAction] {
            event->GetNewSamples([&](const auto& action) {
              printer.print(line_of(*monitor, *action, options.json));
            });
          });
      proxy->MonitorAction.Subscribe(16);
    }
  });
  const bool timed_out = printer.wait(stop_signal, options.timeout);
  DiagnosticMonitorProxy::StopFindService(search);
  proxies.clear();
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
  const auto instance = instance_of(options.monitor);
  on_the_way(options.way, [&] {
    const auto deadline = deadline_in(options.timeout);
    const auto proxy = connect<DiagnosticMonitorProxy>(DiagnosticMonitor::name, deadline, instance);
    const auto reason = *std::ranges::find(binding::enumerators<InitMonitorReason>, options.reason,
                                           &binding::Enumerator<InitMonitorReason>::name);
    result_of(proxy->InitMonitor(reason.value), DiagnosticMonitor::InitMonitor.name, deadline);
  });
  const std::string effect = options.reason == "kClear"
                                 ? "an Error becomes Nominal, and it reports its result"
                                 : "it reports its result again";
  tools::write_output(options.monitor + " initialised with " + options.reason + ": " + effect +
                      "\n");
  return 0;
}

}  // namespace posctl
