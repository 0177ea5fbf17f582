/// Tells execution management where the application stands in its life.
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
  /// Waits a quarter of a second at most for a report under way.
  ~ApplicationClient();
  ApplicationClient(const ApplicationClient&) = delete;
  ApplicationClient& operator=(const ApplicationClient&) = delete;

  /// Does not wait. An execution management that does not read gets the report within 30 s,
  /// unless a newer one has replaced it. Without an execution management (a program started by
  /// hand) nothing happens; a report that cannot be delivered is logged as a warning. Any thread
  /// may call. Never throws.
  void ReportApplicationState(ApplicationState state) const noexcept;

 private:
  class Reporter;
  std::unique_ptr<Reporter> reporter_;
};

}  // namespace ara::exec
