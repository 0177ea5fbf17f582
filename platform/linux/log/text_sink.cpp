#include "platform/linux/log/text_sink.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace ara::log {
namespace {

constexpr std::size_t kMaxFileSize = std::size_t{8} << 20;

bool WriteAll(int fd, std::string_view line) noexcept {
  while (!line.empty()) {
    const ssize_t written = ::write(fd, line.data(), line.size());
    if (written > 0) {
      line.remove_prefix(static_cast<std::size_t>(written));
    } else if (written < 0 && errno == EAGAIN) {
      pollfd ready{fd, POLLOUT, 0};
      if (::poll(&ready, 1, 1000) <= 0) return false;
    } else if (written < 0 && errno != EINTR) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::string FormatLine(LogLevel level,
                       std::string_view application,
                       std::string_view context,
                       std::string_view text) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  tm parts{};
  ::localtime_r(&now.tv_sec, &parts);
  std::array<char, 32> seconds;
  std::array<char, 8> fraction;
  std::string line;
  line.reserve(64 + text.size());
  line.append(seconds.data(),
              std::strftime(seconds.data(), seconds.size(), "%Y/%m/%d %H:%M:%S", &parts));
  std::snprintf(fraction.data(), fraction.size(), ".%06u",
                static_cast<unsigned>(now.tv_nsec / 1000) % 1000000U);
  line += fraction.data();
  for (const std::string_view word : {NameOf(level), application, context, text}) {
    line += ' ';
    line += word;
  }
  for (char& c : line) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
  }
  line += '\n';
  return line;
}

void WriteToStandardError(std::string_view line) noexcept {
  WriteAll(STDERR_FILENO, line);
}

LogFile::LogFile(std::string path) : path_(std::move(path)) {
  Open();
}

LogFile::~LogFile() {
  if (fd_ >= 0) ::close(fd_);
}

void LogFile::Open() {
  fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  struct stat status {};
  if (fd_ < 0 || ::fstat(fd_, &status) != 0) {
    throw std::runtime_error("log file \"" + path_ +
                             "\": " + std::generic_category().message(errno));
  }
  size_ = static_cast<std::size_t>(status.st_size);
}

bool LogFile::Write(std::string_view line) noexcept {
  const std::lock_guard lock(mutex_);
  try {
    if (fd_ >= 0 && size_ + line.size() > kMaxFileSize && size_ != 0) {
      ::rename(path_.c_str(), (path_ + ".1").c_str());
      ::close(std::exchange(fd_, -1));
    }
    if (fd_ < 0) Open();
  } catch (const std::exception&) {
    return false;
  }
  size_ += line.size();
  return WriteAll(fd_, line);
}

}  // namespace ara::log
