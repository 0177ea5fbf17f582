/// What the kernel knows of the test's own process.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

namespace test {

/// The descriptors that a child would have.
inline std::set<std::string> inherited() {
  std::set<std::string> paths;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int descriptor = std::stoi(entry.path().filename());
    const int flags = ::fcntl(descriptor, F_GETFD);
    if (flags >= 0 && (flags & FD_CLOEXEC) == 0) paths.insert(entry.path());
  }
  return paths;
}

/// Whether the only thread beside this one sleeps. The thread sanitizer has one of its own.
inline bool other_thread_waits() {
#ifdef __SANITIZE_THREAD__
  constexpr int expected = 2;
#else
  constexpr int expected = 1;
#endif
  int others = 0;
  int sleeping = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    if (task.path().filename() == std::to_string(::getpid())) continue;
    std::ifstream file(task.path() / "stat");
    const std::string status(std::istreambuf_iterator<char>(file), {});
    ++others;
    sleeping += status.find(") S ") != std::string::npos ? 1 : 0;
  }
  return others == expected && sleeping == expected;
}

}  // namespace test
