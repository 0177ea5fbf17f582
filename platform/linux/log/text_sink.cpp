#include "platform/linux/log/text_sink.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>

namespace ara::log {
namespace {

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

}  // namespace ara::log
