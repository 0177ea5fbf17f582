/// The diagnostic monitors of the application: their states, their reports, their initialisation.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "binding/statistics.h"
#include "diagnosisService/DiagnosticMonitor.h"
#include "diagnosisService/monitor_table.h"
#include "tools/posctl/connect.h"
#include "tools/posctl/record_json.h"

namespace posctl {

/// "0x83D101".
[[nodiscard]] std::string identifier_of(const diagnosisService::Monitor& monitor);

/// The present state of a monitor: its status and since when, or a status of null.
[[nodiscard]] Json state_json(const diagnosisService::Monitor& monitor,
                              const binding::Diagnosis_state& state);
/// A report at its arrival.
[[nodiscard]] Json report_json(const diagnosisService::Monitor& monitor,
                               mw::dm::dem::MonitorActionType action);
/// The name of an action, or its number.
[[nodiscard]] std::string text_of(mw::dm::dem::MonitorActionType action);

/// Follows the reports of all monitors.
class Monitor_reports {
 public:
  /// Threads of the middleware call it, several at once.
  using Take =
      std::function<void(const diagnosisService::Monitor&, mw::dm::dem::MonitorActionType)>;

  explicit Monitor_reports(Take take);
  ~Monitor_reports();
  Monitor_reports(const Monitor_reports&) = delete;
  Monitor_reports& operator=(const Monitor_reports&) = delete;

  /// Whether a monitor has been offered.
  [[nodiscard]] bool found() const { return found_; }

 private:
  using Proxy = mw::dm::dem::proxy::DiagnosticMonitorProxy;

  void follow(std::uint16_t instance, const Proxy::Handle_type& handle);

  const Take take_;
  const std::map<std::uint16_t, const diagnosisService::Monitor*> monitors_;  ///< by instance
  std::atomic<bool> found_ = false;
  std::map<std::uint16_t, std::unique_ptr<Proxy>> proxies_;  ///< of the search's handler
  ara::com::FindServiceHandle search_{};
};

/// The instance of a monitor, given by name or identifier. Throws tools::Usage_error for an unknown
/// one.
[[nodiscard]] std::uint16_t monitor_instance(const std::string& monitor);
/// The reason of a name. Throws tools::Usage_error for an unknown one.
[[nodiscard]] mw::dm::dem::InitMonitorReason init_reason(const std::string& name);
/// Initialises a monitor in the role of the event manager, and returns the effect in words. Throws
/// like the functions of connect.h.
[[nodiscard]] std::string initialise_monitor(std::uint16_t instance,
                                             mw::dm::dem::InitMonitorReason reason,
                                             Deadline deadline);

}  // namespace posctl
