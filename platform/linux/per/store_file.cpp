#include "platform/linux/per/store_file.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "ara/per/exceptions.h"

namespace ara::per {
namespace {

constexpr mode_t file_mode = 0640;

template <typename Call>
auto retry(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR)
    result = call();
  return result;
}

[[noreturn]] void fail(const std::string& what, const std::string& path, int error) {
  throw ExceptionPhysicalStorageError("storage: cannot " + what + " \"" + path +
                                      "\": " + std::generic_category().message(error));
}

/// Closes a descriptor when an exception leaves its scope. All other code closes it explicitly,
/// because closing can fail.
class Descriptor {
 public:
  Descriptor(Files& files, int fd) : files_(files), fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) files_.close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  [[nodiscard]] int get() const { return fd_; }
  /// Linux closes the descriptor in any case, so there is no second try.
  [[nodiscard]] int close() { return files_.close(std::exchange(fd_, -1)); }

 private:
  Files& files_;
  int fd_;
};

}  // namespace

Store_file::Store_file(std::string folder, const std::string& name, Files& files)
    : folder_(std::move(folder)),
      path_(folder_ + "/" + name),
      aside_(path_ + ".new"),
      files_(files) {}

std::optional<std::string> Store_file::read() const {
  // O_NONBLOCK: a pipe under the file's name must not delay the start.
  Descriptor file(files_,
                  retry([&] { return files_.open(path_, O_RDONLY | O_CLOEXEC | O_NONBLOCK, 0); }));
  if (file.get() < 0) {
    if (errno == ENOENT) return std::nullopt;
    fail("open", path_, errno);
  }
  struct stat status {};
  if (files_.fstat(file.get(), status) != 0) fail("examine", path_, errno);
  if (!S_ISREG(status.st_mode)) {
    throw ExceptionValidation("storage file \"" + path_ + "\": expected a regular file, found " +
                              (S_ISDIR(status.st_mode) ? "a folder" : "something else"));
  }
  const auto too_large = [&](std::size_t size) {
    return ExceptionValidation("storage file \"" + path_ + "\": expected at most " +
                               std::to_string(max_file_size) + " bytes, found " +
                               std::to_string(size) + " or more");
  };
  const auto size = static_cast<std::size_t>(std::max<off_t>(status.st_size, 0));
  if (size > max_file_size) throw too_large(size);
  std::string text;
  text.reserve(size);
  std::array<char, 16384> block;
  for (;;) {
    const ssize_t count =
        retry([&] { return files_.read(file.get(), block.data(), block.size()); });
    if (count < 0) fail("read", path_, errno);
    if (count == 0) break;
    text.append(block.data(), static_cast<std::size_t>(count));
    if (text.size() > max_file_size) throw too_large(text.size());
  }
  return text;
}

void Store_file::replace(std::string_view text) const {
  if (text.size() > max_file_size) {
    throw ExceptionPhysicalStorageError("storage file \"" + path_ + "\": can hold at most " +
                                        std::to_string(max_file_size) + " bytes, not " +
                                        std::to_string(text.size()));
  }
  try {
    write_aside(text);
    if (retry([&] { return files_.rename(aside_, path_); }) != 0) fail("replace", path_, errno);
  } catch (const ExceptionPhysicalStorageError&) {
    remove_leftover();
    throw;
  }
  sync_folder();
}

void Store_file::write_aside(std::string_view text) const {
  Descriptor file(files_, retry([&] {
                    return files_.open(
                        aside_, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, file_mode);
                  }));
  if (file.get() < 0) fail("create", aside_, errno);
  while (!text.empty()) {
    const ssize_t count = retry([&] { return files_.write(file.get(), text.data(), text.size()); });
    if (count <= 0) fail("write", aside_, count < 0 ? errno : ENOSPC);
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  // Syncs the content before the name: otherwise a file system may keep the rename and lose the
  // content.
  if (retry([&] { return files_.fsync(file.get()); }) != 0) fail("write", aside_, errno);
  if (file.close() != 0 && errno != EINTR) fail("close", aside_, errno);
}

void Store_file::sync_folder() const {
  Descriptor folder(
      files_, retry([&] { return files_.open(folder_, O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0); }));
  if (folder.get() < 0) fail("open", folder_, errno);
  if (retry([&] { return files_.fsync(folder.get()); }) != 0) fail("write", folder_, errno);
}

void Store_file::remove_leftover() const noexcept {
  files_.unlink(aside_);
}

}  // namespace ara::per
