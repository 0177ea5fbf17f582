/// One monitor as the diagnostic event manager sees it.
#pragma once

#include <cstdint>

#include "diagnosisService/DiagnosticMonitor.h"

namespace diagnosisService {

class diagnosisServiceImpl;

class DiagnosticMonitorServiceSkelImpl : public mw::dm::dem::skeleton::DiagnosticMonitorSkeleton {
 public:
  /// `service` must outlive this object.
  DiagnosticMonitorServiceSkelImpl(const ara::core::InstanceSpecifier& specifier,
                                   diagnosisServiceImpl& service,
                                   std::uint32_t identifier)
      : DiagnosticMonitorSkeleton{specifier}, service_{service}, identifier_{identifier} {}
  ~DiagnosticMonitorServiceSkelImpl() override { disconnect(); }

  /// For kClear, an Error becomes Nominal as if data had just been received. For all three known
  /// reasons, the monitor's result is then sent. Returns after the event was sent.
  ara::core::Future<void> InitMonitor(mw::dm::dem::InitMonitorReason reason) override;

 private:
  diagnosisServiceImpl& service_;
  const std::uint32_t identifier_;
};

}  // namespace diagnosisService
