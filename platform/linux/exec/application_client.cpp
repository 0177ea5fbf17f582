#include "ara/exec/application_client.h"

#include <systemd/sd-daemon.h>

#include <exception>
#include <system_error>

#include "ara/log/logger.h"

namespace ara::exec {
namespace {

const char* MessageFor(ApplicationState state) {
  switch (state) {
    case ApplicationState::kInitializing:
      return "STATUS=initializing";
    case ApplicationState::kRunning:
      return "READY=1\nSTATUS=running";
    case ApplicationState::kTerminating:
      return "STOPPING=1\nSTATUS=terminating";
  }
  return "STATUS=unknown state";
}

}  // namespace

void ApplicationClient::ReportApplicationState(ApplicationState state) const noexcept {
  const int result = ::sd_notify(0, MessageFor(state));
  if (result >= 0) return;
  try {
    log::LogWarn() << "The application state could not be reported to the service manager:"
                   << std::generic_category().message(-result);
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): no memory for a warning
  }
}

}  // namespace ara::exec
