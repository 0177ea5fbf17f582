#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <string>

#include "diagnosisService/DiagnosticMonitor.h"
#include "diagnosisService/monitor_table.h"
#include "platform/linux/com/manifest.h"
#include "platform/someip/base/hexadecimal.h"
#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/connect.h"
#include "tools/posctl/printer.h"
#include "tools/posctl/record_json.h"
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
    return Json{{"monitor", identifier_of(monitor)},
                {"name", monitor.name},
                {"action", static_cast<unsigned>(action)},
                {"actionName", text_of(action)}}
        .dump();
  }
  return identifier_of(monitor) + " " + std::string(monitor.name) + " " + text_of(action);
}

/// The instance of a monitor, given by name or identifier.
std::uint16_t instance_of(const std::string& text) {
  for (const auto& [instance, monitor] : monitors_by_instance()) {
    if (text == monitor->name || text == identifier_of(*monitor) ||
        text == std::to_string(monitor->identifier)) {
      return instance;
    }
  }
  throw tools::Usage_error("there is no monitor \"" + text +
                           "\"; one such as POS_Input_GNSS or 0x83D101 is expected");
}

/// Until it is interrupted, or `options` are fulfilled or exceeded.
void print_monitors(const Monitor_options& options, tools::Stop_signal& stop_signal) {
  const auto names = monitors_by_instance();
  Printer printer(options.count);
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
  throw std::runtime_error(text_after(options.timeout) +
                           (!found ? std::string("no monitor was offered")
                                   : std::to_string(printer.printed()) + " of " +
                                         std::to_string(options.count) + " monitor actions came"));
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
    result_of(proxy->InitMonitor(static_cast<InitMonitorReason>(options.reason)),
              DiagnosticMonitor::InitMonitor.name, deadline);
  });
  return 0;
}

}  // namespace posctl
