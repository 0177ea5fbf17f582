/// Reports the application's execution state to execution management.
#pragma once

#include <cstdint>
#include <memory>

namespace ara::exec {

enum class ApplicationState : std::uint8_t {
  kInitializing = 0,
  kRunning = 1,
  kTerminating = 2,
};

class ApplicationClient {
 public:
  ApplicationClient();
  /// Waits at most a quarter of a second for a report under way.
  ~ApplicationClient();
  ApplicationClient(const ApplicationClient&) = delete;
  ApplicationClient& operator=(const ApplicationClient&) = delete;

  /// Reports `state` without waiting. An execution management that does not read receives the
  /// report within 30 s, unless a newer report has replaced it. Without an execution management (a
  /// program started by hand) nothing happens. A report that cannot be delivered is logged as a
  /// warning. Any thread may call. Never throws.
  void ReportApplicationState(ApplicationState state) const noexcept;

 private:
  class Reporter;
  std::unique_ptr<Reporter> reporter_;
};

}  // namespace ara::exec
