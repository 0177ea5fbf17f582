#include "platform/linux/per/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace ara::per {

int Files::open(const std::string& path, int flags, mode_t mode) {
  return ::open(path.c_str(), flags, mode);
}
ssize_t Files::read(int fd, char* buffer, std::size_t size) {
  return ::read(fd, buffer, size);
}
ssize_t Files::write(int fd, const char* data, std::size_t size) {
  return ::write(fd, data, size);
}
int Files::fstat(int fd, struct stat& status) {
  return ::fstat(fd, &status);
}
int Files::fsync(int fd) {
  return ::fsync(fd);
}
int Files::close(int fd) {
  return ::close(fd);
}
int Files::rename(const std::string& from, const std::string& to) {
  return std::rename(from.c_str(), to.c_str());
}
int Files::unlink(const std::string& path) {
  return ::unlink(path.c_str());
}

Files& Files::of_the_system() {
  static Files files;
  return files;
}

}  // namespace ara::per
