/// The service by which a monitor and the diagnostic event manager talk: interface, skeleton,
/// proxy.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "ara/core/future.h"
#include "binding/codec.h"
#include "mw/com/cpp_binding/proxy.h"
#include "mw/com/cpp_binding/skeleton.h"

namespace mw::dm::dem {

/// Why the event manager initialises a monitor. Other values may arrive and are ignored.
enum class InitMonitorReason : std::uint8_t { kClear = 0, kRestart = 1, kReenabled = 2 };

/// What a monitor reports. The application sends the first two only; the event manager debounces.
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

/// The name above; empty for a number that has none.
[[nodiscard]] constexpr std::string_view nameOf(MonitorActionType action) {
  constexpr std::array<std::string_view, 10> names{"kPassed",
                                                   "kFailed",
                                                   "kPrepassed",
                                                   "kPrefailed",
                                                   "kFdcThresholdReached",
                                                   "kResetTestFailed",
                                                   "kFreezeDebouncing",
                                                   "kResetDebouncing",
                                                   "kPrestore",
                                                   "kClearPrestore"};
  const auto number = static_cast<std::size_t>(action);
  return number < names.size() ? names[number] : std::string_view{};
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

  mw::com::cpp_binding::proxy::Method<void(InitMonitorReason)> InitMonitor{
      core(), DiagnosticMonitor::InitMonitor.name};
  mw::com::cpp_binding::proxy::Event<MonitorActionType> MonitorAction{
      core(), DiagnosticMonitor::MonitorAction.name};
};
}  // namespace proxy

namespace skeleton {
class DiagnosticMonitorSkeleton
    : public mw::com::cpp_binding::skeleton::Skeleton_impl<DiagnosticMonitor> {
 public:
  /// An implementation's destructor must begin with disconnect(), so that no call reaches it any
  /// more.
  explicit DiagnosticMonitorSkeleton(const ara::core::InstanceSpecifier& specifier)
      : Skeleton_impl{specifier} {
    mw::com::cpp_binding::skeleton::provide(
        core(), DiagnosticMonitor::InitMonitor,
        [this](InitMonitorReason reason) { return InitMonitor(reason); });
  }
  virtual ~DiagnosticMonitorSkeleton() { disconnect(); }

  virtual ara::core::Future<void> InitMonitor(InitMonitorReason reason) = 0;

  mw::com::cpp_binding::skeleton::Event<MonitorActionType> MonitorAction{
      core(), DiagnosticMonitor::MonitorAction.name};
};
}  // namespace skeleton

}  // namespace mw::dm::dem
