/// The system calls of a store: the one place where a test can make each of them fail.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string>

namespace ara::per {

/// Each function is the POSIX call of its name and returns -1 with errno on an error.
class Files {
 public:
  Files() = default;
  virtual ~Files() = default;
  Files(const Files&) = delete;
  Files& operator=(const Files&) = delete;

  virtual int open(const std::string& path, int flags, mode_t mode);
  virtual ssize_t read(int fd, char* buffer, std::size_t size);
  virtual ssize_t write(int fd, const char* data, std::size_t size);
  virtual int fstat(int fd, struct stat& status);
  virtual int fsync(int fd);
  virtual int close(int fd);
  virtual int rename(const std::string& from, const std::string& to);
  virtual int unlink(const std::string& path);

  static Files& of_the_system();
};

}  // namespace ara::per
