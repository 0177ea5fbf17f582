/// The Unix socket of a node, as a file and as a descriptor.
#pragma once

#include <string>
#include <system_error>

namespace someip {

/// A connected descriptor, closed in child processes; -1 and `error` without one. Never waits.
[[nodiscard]] int connect_local(const std::string& path, std::error_code& error);

/// The right of this process to listen at a path. It lasts until the end of the object or of the
/// process.
class Local_path {
 public:
  /// Removes the socket that an ended process has left. Throws std::runtime_error when another
  /// process listens there, or when the path cannot be used.
  explicit Local_path(std::string path);
  /// Removes the socket.
  ~Local_path();
  Local_path(const Local_path&) = delete;
  Local_path& operator=(const Local_path&) = delete;

  /// A listening descriptor, which owner and group of the file may connect to. Throws
  /// std::runtime_error.
  [[nodiscard]] int listen() const;

 private:
  const std::string path_;
  int lock_ = -1;
};

}  // namespace someip
