/// The notify protocol of the service manager, for execution and health management.
#pragma once

#include <string_view>

namespace ara::exec {

/// A connection to the socket named by the environment variable NOTIFY_SOCKET: a path, or '@' and a
/// name of the abstract namespace.
class NotifySocket {
 public:
  /// An error in here is the result of Send().
  NotifySocket() noexcept;
  ~NotifySocket();
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  /// Sends one message, lines of "NAME=value". Never waits. Returns 0 or an error number; EAGAIN
  /// means that the service manager has not read the queue. Without NOTIFY_SOCKET nothing happens.
  [[nodiscard]] int Send(std::string_view message) const noexcept;

  /// For poll(): writable when the queue has room. Negative while there is no connection.
  [[nodiscard]] int descriptor() const { return descriptor_; }

 private:
  int descriptor_ = -1;
  int error_ = 0;
};

}  // namespace ara::exec
