/// The notify protocol of the service manager, for execution and health management.
#pragma once

#include <string_view>

namespace ara::exec {

/// A connection to the socket that the environment variable NOTIFY_SOCKET names: a path, or '@' and
/// a name of the abstract namespace.
class NotifySocket {
 public:
  /// What fails here is the result of Send().
  NotifySocket() noexcept;
  ~NotifySocket();
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  /// One message, lines of "NAME=value". Never waits. Returns 0 or an error number; EAGAIN: the
  /// service manager has not read what is in the queue. Without NOTIFY_SOCKET nothing happens.
  [[nodiscard]] int Send(std::string_view message) const noexcept;

  /// For poll(): writable when the queue has room. Negative while there is no connection.
  [[nodiscard]] int descriptor() const { return descriptor_; }

 private:
  int descriptor_ = -1;
  int error_ = 0;
};

}  // namespace ara::exec
