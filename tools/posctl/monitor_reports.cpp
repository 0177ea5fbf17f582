#include "tools/posctl/monitor_reports.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "platform/linux/com/manifest.h"
#include "platform/someip/base/hexadecimal.h"
#include "tools/command.h"
#include "tools/near_name.h"
#include "tools/posctl/explain.h"
#include "tools/posctl/notification_json.h"

namespace posctl {

using diagnosisService::Monitor;
using diagnosisService::monitor_table;
using mw::dm::dem::DiagnosticMonitor;
using mw::dm::dem::InitMonitorReason;
using mw::dm::dem::MonitorActionType;
using mw::dm::dem::proxy::DiagnosticMonitorProxy;

namespace {

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

}  // namespace

std::string identifier_of(const Monitor& monitor) {
  return someip::hexadecimal(monitor.identifier, 6);
}

Json state_json(const Monitor& monitor, const binding::Diagnosis_state& state) {
  Json json{{"schema", 1}, {"monitor", identifier_of(monitor)}, {"name", monitor.name}};
  json["status"] = Json();
  if (const auto* found = status_of(monitor, state)) {
    json["status"] = status_name(found->status);
    json["sinceS"] = static_cast<double>(found->sinceMs) / 1000;
  }
  return json;
}

std::string text_of(MonitorActionType action) {
  const auto name = binding::name_of(action);
  return name.empty() ? std::to_string(static_cast<unsigned>(action)) : std::string(name);
}

Json report_json(const Monitor& monitor, MonitorActionType action) {
  return {{"schema", 1},
          {"received", seconds_since_1970()},
          {"monitor", identifier_of(monitor)},
          {"name", monitor.name},
          {"action", text_of(action)}};
}

Monitor_reports::Monitor_reports(Take take)
    : take_(std::move(take)), monitors_(monitors_by_instance()) {
  search_ = Proxy::StartFindService([this](const auto& handles, auto) {
    std::erase_if(proxies_, [&](const auto& known) {
      return std::none_of(handles.begin(), handles.end(), [&](const auto& handle) {
        return handle.GetInstanceId().Id() == known.first;
      });
    });
    for (const auto& handle : handles)
      follow(handle.GetInstanceId().Id(), handle);
  });
}

Monitor_reports::~Monitor_reports() {
  Proxy::StopFindService(search_);
}

void Monitor_reports::follow(std::uint16_t instance, const Proxy::Handle_type& handle) {
  const auto monitor = monitors_.find(instance);
  if (monitor == monitors_.end() || proxies_.contains(instance)) return;
  found_ = true;
  auto& proxy = proxies_[instance];
  proxy = std::make_unique<Proxy>(handle);
  proxy->MonitorAction.SetReceiveHandler(
      [this, monitor = monitor->second, event = &proxy->MonitorAction] {
        event->GetNewSamples([&](const auto& action) { take_(*monitor, *action); });
      });
  proxy->MonitorAction.Subscribe(16);
}

std::uint16_t monitor_instance(const std::string& text) {
  for (const auto& [instance, monitor] : monitors_by_instance()) {
    if (text == monitor->name || text == identifier_of(*monitor) ||
        text == std::to_string(monitor->identifier)) {
      return instance;
    }
  }
  std::vector<std::string_view> names;
  names.reserve(monitor_table.size());
  for (const auto& monitor : monitor_table)
    names.push_back(monitor.name);
  throw tools::Usage_error("there is no monitor \"" + text +
                           "\"; one such as POS_Input_GNSS or 0x83D101 is expected" +
                           tools::did_you_mean(text, names));
}

InitMonitorReason init_reason(const std::string& name) {
  const auto& known = binding::enumerators<InitMonitorReason>;
  const auto found = std::ranges::find(known, name, &binding::Enumerator<InitMonitorReason>::name);
  if (found != known.end()) return found->value;
  throw tools::Usage_error("there is no reason \"" + name + "\" to initialise a monitor");
}

std::string initialise_monitor(std::uint16_t instance,
                               InitMonitorReason reason,
                               Deadline deadline) {
  const auto proxy = connect<DiagnosticMonitorProxy>(DiagnosticMonitor::name, deadline, instance);
  result_of(proxy->InitMonitor(reason), DiagnosticMonitor::InitMonitor.name, deadline);
  return reason == InitMonitorReason::kClear ? "an Error becomes Nominal, and it reports its result"
                                             : "it reports its result again";
}

}  // namespace posctl
