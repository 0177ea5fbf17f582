/// Log messages as lines of text: standard error and log files.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>

#include "ara/log/common.h"

namespace ara::log {

/// "2026/11/24 20:32:00.459871 info POS GNSS text\n", local time. Control characters in `text`
/// become blanks, so that nothing a peer sends can forge a line.
[[nodiscard]] std::string FormatLine(LogLevel level,
                                     std::string_view application,
                                     std::string_view context,
                                     std::string_view text);

/// Writes the line in one piece. A reader that does not read delays the caller by a second at most,
/// then the line is dropped.
void WriteToStandardError(std::string_view line) noexcept;

/// A log file that is started anew when it has grown to 8 MiB; the one before is kept as <path>.1.
class LogFile {
 public:
  /// Throws std::runtime_error with path and reason.
  explicit LogFile(std::string path);
  ~LogFile();
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  /// False when the line could not be written.
  bool Write(std::string_view line) noexcept;

 private:
  const std::string path_;
  std::mutex mutex_;  ///< guards the members below, held while writing
  int fd_ = -1;
  std::size_t size_ = 0;

  void Open();
};

}  // namespace ara::log
