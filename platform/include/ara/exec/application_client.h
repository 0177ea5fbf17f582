/// Tells execution management where the application stands in its life.
#pragma once

#include <cstdint>

namespace ara::exec {

enum class ApplicationState : std::uint8_t {
  kInitializing = 0,
  kRunning = 1,
  kTerminating = 2,
};

class ApplicationClient {
 public:
  ApplicationClient() = default;
  ~ApplicationClient() = default;
  ApplicationClient(const ApplicationClient&) = delete;
  ApplicationClient& operator=(const ApplicationClient&) = delete;

  /// Does not wait for an answer. Without an execution management (a program started by hand)
  /// nothing happens; a report that cannot be delivered is logged as a warning. Never throws.
  void ReportApplicationState(ApplicationState state) const noexcept;
};

}  // namespace ara::exec
