#include "platform/linux/exec/notify_socket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>

namespace ara::exec {

Notify_socket::Notify_socket() noexcept {
  const char* const variable = std::getenv("NOTIFY_SOCKET");
  const std::string_view name = variable != nullptr ? variable : "";
  if (name.empty()) return;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const bool abstract = name.front() == '@';
  // An abstract name ends with the address's length, a path with a zero byte.
  if (name.size() + (abstract ? 0 : 1) > sizeof address.sun_path) {
    error_ = ENAMETOOLONG;
    return;
  }
  std::copy(name.begin(), name.end(), address.sun_path);
  if (abstract) address.sun_path[0] = '\0';
  const auto length = offsetof(sockaddr_un, sun_path) + name.size() + (abstract ? 0 : 1);

  descriptor_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  // The socket calls take every kind of address as this generic one.
  const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
  if (descriptor_ < 0 || ::connect(descriptor_, generic, static_cast<socklen_t>(length)) != 0)
    error_ = errno;
}

Notify_socket::~Notify_socket() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

int Notify_socket::send(std::string_view message) const noexcept {
  if (descriptor_ < 0 || error_ != 0) return error_;
  const ssize_t sent =
      ::send(descriptor_, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  return sent < 0 ? errno : 0;
}

}  // namespace ara::exec
