/// The notify protocol of the service manager, for execution and health management.
#pragma once

#include <string_view>

namespace ara::exec {

/// A connection to the socket named by the environment variable NOTIFY_SOCKET: a path, or '@' and a
/// name of the abstract namespace.
class Notify_socket {
 public:
  /// An error in here is the result of send().
  Notify_socket() noexcept;
  ~Notify_socket();
  Notify_socket(const Notify_socket&) = delete;
  Notify_socket& operator=(const Notify_socket&) = delete;

  /// Sends one message, lines of "NAME=value". Never waits. Returns 0 or an error number; EAGAIN
  /// means that the service manager has not read the queue. Without NOTIFY_SOCKET nothing happens.
  [[nodiscard]] int send(std::string_view message) const noexcept;

  /// For poll(): writable when the queue has room. Negative while there is no connection.
  [[nodiscard]] int descriptor() const { return descriptor_; }

 private:
  int descriptor_ = -1;
  int error_ = 0;
};

}  // namespace ara::exec
