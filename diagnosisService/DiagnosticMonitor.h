/// The service between a monitor and the diagnostic event manager: interface, skeleton, proxy.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "ara/core/future.h"
#include "binding/codec.h"
#include "mw/com/cpp_binding/proxy.h"
#include "mw/com/cpp_binding/skeleton.h"

namespace mw::dm::dem {

/// The event manager's reason to initialise a monitor. Other values may arrive and are ignored.
enum class InitMonitorReason : std::uint8_t { kClear = 0, kRestart = 1, kReenabled = 2 };
constexpr auto enumerators_of(InitMonitorReason) {
  using enum InitMonitorReason;
  return std::to_array<binding::Enumerator<InitMonitorReason>>(
      {{kClear, "kClear"}, {kRestart, "kRestart"}, {kReenabled, "kReenabled"}});
}

/// The report of a monitor. The application sends the first two only; the event manager debounces.
enum class MonitorActionType : std::uint8_t {
  kPassed = 0,
  kFailed = 1,
  kPrepassed = 2,
  kPrefailed = 3,
  kFdcThresholdReached = 4,
  kResetTestFailed = 5,
  kFreezeDebouncing = 6,
  kResetDebouncing = 7,
  kPrestore = 8,
  kClearPrestore = 9,
};
constexpr auto enumerators_of(MonitorActionType) {
  using enum MonitorActionType;
  return std::to_array<binding::Enumerator<MonitorActionType>>(
      {{kPassed, "kPassed"},
       {kFailed, "kFailed"},
       {kPrepassed, "kPrepassed"},
       {kPrefailed, "kPrefailed"},
       {kFdcThresholdReached, "kFdcThresholdReached"},
       {kResetTestFailed, "kResetTestFailed"},
       {kFreezeDebouncing, "kFreezeDebouncing"},
       {kResetDebouncing, "kResetDebouncing"},
       {kPrestore, "kPrestore"},
       {kClearPrestore, "kClearPrestore"}});
}

struct DiagnosticMonitor {
  static constexpr std::string_view name = "mw::dm::dem::DiagnosticMonitor";
  static constexpr mw::com::cpp_binding::Version version{1, 0};
  static constexpr mw::com::cpp_binding::Method<void(InitMonitorReason)> InitMonitor{"InitMonitor"};
  static constexpr mw::com::cpp_binding::Event<MonitorActionType> MonitorAction{"MonitorAction"};
  static constexpr auto elements = std::tuple{InitMonitor, MonitorAction};
};

namespace proxy {
class DiagnosticMonitorProxy : public mw::com::cpp_binding::proxy::Proxy_impl<DiagnosticMonitor> {
 public:
  explicit DiagnosticMonitorProxy(const Handle_type& handle) : Proxy_impl{handle} {}

  mw::com::cpp_binding::proxy::Element<DiagnosticMonitor::InitMonitor> InitMonitor{core()};
  mw::com::cpp_binding::proxy::Element<DiagnosticMonitor::MonitorAction> MonitorAction{core()};
};
}  // namespace proxy

namespace skeleton {
class DiagnosticMonitorSkeleton
    : public mw::com::cpp_binding::skeleton::Skeleton_impl<DiagnosticMonitor> {
 public:
  /// An implementation's destructor must begin with disconnect(), so that afterwards no call
  /// reaches it.
  explicit DiagnosticMonitorSkeleton(const ara::core::InstanceSpecifier& specifier)
      : Skeleton_impl{specifier} {
    mw::com::cpp_binding::skeleton::provide(
        core(), DiagnosticMonitor::InitMonitor,
        [this](InitMonitorReason reason) { return InitMonitor(reason); });
  }
  virtual ~DiagnosticMonitorSkeleton() { disconnect(); }

  virtual ara::core::Future<void> InitMonitor(InitMonitorReason reason) = 0;

  mw::com::cpp_binding::skeleton::Element<DiagnosticMonitor::MonitorAction> MonitorAction{core()};
};
}  // namespace skeleton

}  // namespace mw::dm::dem
