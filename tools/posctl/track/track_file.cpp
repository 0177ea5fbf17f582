#include "tools/posctl/track/track_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "tools/command.h"

namespace posctl::track {

Track_file::Track_file(const std::string& path, Format format) : path_{path}, text_{format} {
  if (path == "-") {
    tools::write_output(text_.begin());
    return;
  }
  descriptor_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (descriptor_ < 0)
    throw std::system_error(errno, std::generic_category(), "cannot create \"" + path + "\"");
  struct stat status {};
  holds_another_ = ::fstat(descriptor_, &status) == 0 && status.st_size != 0;
  if (!holds_another_) write(text_.begin(), "");
}

Track_file::~Track_file() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

void Track_file::add(const Point& point, const Json& record, int cancel) {
  const std::string old_end = text_.end();
  const std::string piece = text_.next(point, record);
  if (descriptor_ < 0) return tools::write_output(piece, cancel);
  if (std::exchange(holds_another_, false)) {
    if (::ftruncate(descriptor_, 0) != 0) {
      throw std::system_error(errno, std::generic_category(), "cannot empty \"" + path_ + "\"");
    }
    write(text_.begin() + piece, "");
  } else {
    write(piece, old_end);
  }
}

void Track_file::finish() {
  if (descriptor_ < 0) tools::write_output(text_.end());
}

void Track_file::write(const std::string& piece, const std::string& old_end) try {
  write_at(end_, piece + text_.end());
  end_ += static_cast<off_t>(piece.size());
} catch (const std::system_error&) {
  // The old end has its place on the medium already, also if that is full. The failure that the
  // caller sees is the first one.
  const auto size = end_ + static_cast<off_t>(old_end.size());
  [[maybe_unused]] const bool restored =
      ::pwrite(descriptor_, old_end.data(), old_end.size(), end_) >= 0 &&
      ::ftruncate(descriptor_, size) == 0;
  throw;
}

void Track_file::write_at(off_t place, const std::string& text) const {
  for (std::size_t written = 0; written < text.size();) {
    const ssize_t count = ::pwrite(descriptor_, text.data() + written, text.size() - written,
                                   place + static_cast<off_t>(written));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      throw std::system_error(count < 0 ? errno : ENOSPC, std::generic_category(),
                              "cannot write to \"" + path_ + "\"");
    }
    written += static_cast<std::size_t>(count);
  }
}

}  // namespace posctl::track
