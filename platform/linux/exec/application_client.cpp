#include "ara/exec/application_client.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <exception>
#include <future>
#include <mutex>
#include <string>
#include <system_error>

#include "ara/log/logger.h"
#include "platform/linux/core/all_signals_blocked.h"
#include "platform/linux/exec/notify_socket.h"

namespace ara::exec {
namespace {

using Clock = std::chrono::steady_clock;

/// Equals the unit's TimeoutStartSec: a service manager that has not read READY by then has given
/// up the start.
constexpr std::chrono::seconds retry_limit{30};
/// For STOPPING, the last report: the end of the process says the same.
constexpr std::chrono::milliseconds last_wait{250};

const char* message_for(ApplicationState state) {
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

void warn(const std::string& reason) {
  log::LogWarn() << "The application state could not be reported to the service manager:" << reason;
}

}  // namespace

/// Sends the newest state: on the calling thread if the queue has room, else on a thread that waits
/// for room.
class ApplicationClient::Reporter {
 public:
  Reporter() = default;
  ~Reporter() {
    const std::lock_guard lock(mutex_);
    if (retry_.valid()) (void)retry_.wait_for(last_wait);
    if (end_retry() == EAGAIN) warn(std::generic_category().message(EAGAIN));
    if (wake_ >= 0) ::close(wake_);
  }
  Reporter(const Reporter&) = delete;
  Reporter& operator=(const Reporter&) = delete;

  void report(const char* message) {
    const std::lock_guard lock(mutex_);
    (void)end_retry();
    const int error = Notify_socket().send(message);
    if (error == EAGAIN) {
      start_retry(message);
    } else if (error != 0) {
      warn(std::generic_category().message(error));
    }
  }

 private:
  void start_retry(const char* message) {
    if (wake_ < 0) wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    const core::All_signals_blocked blocked;
    retry_ = std::async(std::launch::async, &Reporter::retry, this, message);
  }

  /// Returns the error of a retry that was still waiting, else 0.
  int end_retry() {
    if (!retry_.valid()) return 0;
    ::eventfd_write(wake_, 1);
    const int error = retry_.get();
    eventfd_t count = 0;
    ::eventfd_read(wake_, &count);
    return error;
  }

  /// Returns EAGAIN if woken before there was room, else 0.
  [[nodiscard]] int retry(const char* message) const {
    const auto end = Clock::now() + retry_limit;
    for (;;) {
      const Notify_socket socket;
      const int error = socket.send(message);
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
      if (error != EAGAIN || left.count() <= 0) {
        if (error != 0) warn(std::generic_category().message(error));
        return 0;
      }
      std::array<pollfd, 2> events{{{socket.descriptor(), POLLOUT, 0}, {wake_, POLLIN, 0}}};
      (void)::poll(events.data(), events.size(), static_cast<int>(left.count()));
      if (events[1].revents != 0) return EAGAIN;
    }
  }

  std::mutex mutex_;        ///< guards the members below; held for the short end of a retry
  int wake_ = -1;           ///< ends the retry's wait; made before its thread
  std::future<int> retry_;  ///< retry of the newest report, if that found the queue full
};

ApplicationClient::ApplicationClient() : reporter_(std::make_unique<Reporter>()) {}
ApplicationClient::~ApplicationClient() = default;

void ApplicationClient::ReportApplicationState(ApplicationState state) const noexcept {
  try {
    reporter_->report(message_for(state));
  } catch (const std::exception& error) {
    try {
      warn(error.what());
    } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): no memory for a warning
    }
  }
}

}  // namespace ara::exec
