#include "diagnosisService/DiagnosticMonitorServiceSkelImpl.h"

#include "diagnosisService/diagnosisServiceImpl.h"
#include "diagnosisService/monitor_table.h"

namespace diagnosisService {

using mw::dm::dem::InitMonitorReason;

ara::core::Future<void> DiagnosticMonitorServiceSkelImpl::InitMonitor(InitMonitorReason reason) {
  const auto log = [&](std::string_view text) {
    service_.logger().LogInfo() << "DiagnosticMonitor::InitMonitor for service " << identifier_
                                << monitor_name(identifier_) << text;
  };
  switch (reason) {
    case InitMonitorReason::kClear:
      log(") reason is kClear");
      service_.clear(identifier_);
      service_.send_result(identifier_);
      break;
    case InitMonitorReason::kRestart:
    case InitMonitorReason::kReenabled:
      log(") reason is kRestart OR kReenabled");
      service_.send_result(identifier_);
      break;
    default:
      break;
  }
  ara::core::Promise<void> done;
  done.set_value();
  return done.get_future();
}

}  // namespace diagnosisService
