#include "platform/someip/net/local_path.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace someip {

namespace {

constexpr mode_t owner_and_group = 0660;

std::error_code last_error() {
  return {errno, std::generic_category()};
}

[[noreturn]] void fail(const std::string& path, const std::string& why) {
  throw std::runtime_error(path + ": " + why);
}

bool address_of(const std::string& path, sockaddr_un& address) {
  address = {};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, path.c_str(), path.size());
  return true;
}

const sockaddr* any(const sockaddr_un& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

int open_socket() {
  return ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

}  // namespace

int connect_local(const std::string& path, std::error_code& error) {
  sockaddr_un address;
  if (!address_of(path, address)) {
    error = std::make_error_code(std::errc::filename_too_long);
    return -1;
  }
  const int descriptor = open_socket();
  // EAGAIN when too many wait to be accepted: no connection is under way then.
  if (descriptor >= 0 && ::connect(descriptor, any(address), sizeof address) == 0) {
    error.clear();
    return descriptor;
  }
  error = last_error();
  if (descriptor >= 0) ::close(descriptor);
  return -1;
}

Local_path::Local_path(std::string path) : path_(std::move(path)) {
  sockaddr_un address;
  if (!address_of(path_, address)) {
    fail(path_, "expected a path of 1 to " + std::to_string(sizeof address.sun_path - 1) +
                    " bytes for a socket");
  }
  const std::string lock = path_ + ".lock";
  lock_ = ::open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
  if (lock_ < 0) fail(lock, last_error().message());
  // The kernel unlocks it when the process ends, however it ends.
  std::string why;
  struct stat present {};
  if (::flock(lock_, LOCK_EX | LOCK_NB) != 0) {
    why = errno == EWOULDBLOCK ? "another process listens there" : last_error().message();
  } else if (::lstat(path_.c_str(), &present) == 0) {
    if (!S_ISSOCK(present.st_mode)) {
      why = "there is a file that is no socket";
    } else if (::unlink(path_.c_str()) != 0) {
      why = last_error().message();
    }
  }
  if (why.empty()) return;
  ::close(lock_);
  fail(path_, why);
}

Local_path::~Local_path() {
  ::unlink(path_.c_str());
  ::close(lock_);
}

int Local_path::listen() const {
  sockaddr_un address;
  static_cast<void>(address_of(path_, address));
  const int descriptor = open_socket();
  // The file gets the mode of the descriptor, less the process's mask: at no moment more than it
  // shall have.
  if (descriptor >= 0 && ::fchmod(descriptor, owner_and_group) == 0 &&
      ::bind(descriptor, any(address), sizeof address) == 0 &&
      ::chmod(path_.c_str(), owner_and_group) == 0 && ::listen(descriptor, SOMAXCONN) == 0) {
    return descriptor;
  }
  const auto error = last_error();
  if (descriptor >= 0) ::close(descriptor);
  fail(path_, error.message());
}

}  // namespace someip
