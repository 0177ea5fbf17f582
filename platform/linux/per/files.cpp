#include "platform/linux/per/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace ara::per {

int Files::Open(const std::string& path, int flags, mode_t mode) {
  return ::open(path.c_str(), flags, mode);
}
ssize_t Files::Read(int fd, char* buffer, std::size_t size) {
  return ::read(fd, buffer, size);
}
ssize_t Files::Write(int fd, const char* data, std::size_t size) {
  return ::write(fd, data, size);
}
int Files::Fstat(int fd, struct stat& status) {
  return ::fstat(fd, &status);
}
int Files::Fsync(int fd) {
  return ::fsync(fd);
}
int Files::Close(int fd) {
  return ::close(fd);
}
int Files::Rename(const std::string& from, const std::string& to) {
  return std::rename(from.c_str(), to.c_str());
}
int Files::Unlink(const std::string& path) {
  return ::unlink(path.c_str());
}

Files& Files::OfTheSystem() {
  static Files files;
  return files;
}

}  // namespace ara::per
