/// A file that is read whole and replaced whole.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/per/files.h"

namespace ara::per {

/// Far beyond what an application keeps in a key-value storage; a larger file is not one.
inline constexpr std::size_t kMaxFileSize = std::size_t{16} << 20;

class StoreFile {
 public:
  StoreFile(std::string folder, const std::string& name, Files& files);

  [[nodiscard]] const std::string& path() const { return path_; }

  /// Nothing when there is no file. Throws ExceptionPhysicalStorageError when it cannot be read and
  /// ExceptionValidation when it is no regular file or larger than kMaxFileSize.
  [[nodiscard]] std::optional<std::string> Read() const;

  /// Whenever power fails, the file holds afterwards its old content or all of `text`; once this
  /// has returned, `text`. Throws ExceptionPhysicalStorageError; the content is then the old one
  /// or, when only the very last step failed, `text`.
  void Replace(std::string_view text) const;

  /// Removes what a Replace that was cut off has left behind.
  void RemoveLeftover() const noexcept;

 private:
  void WriteAside(std::string_view text) const;
  void SyncFolder() const;

  const std::string folder_;
  const std::string path_;
  const std::string aside_;
  Files& files_;
};

}  // namespace ara::per
