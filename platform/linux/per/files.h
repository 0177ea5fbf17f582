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

  virtual int Open(const std::string& path, int flags, mode_t mode);
  virtual ssize_t Read(int fd, char* buffer, std::size_t size);
  virtual ssize_t Write(int fd, const char* data, std::size_t size);
  virtual int Fstat(int fd, struct stat& status);
  virtual int Fsync(int fd);
  virtual int Close(int fd);
  virtual int Rename(const std::string& from, const std::string& to);
  virtual int Unlink(const std::string& path);

  static Files& OfTheSystem();
};

}  // namespace ara::per
