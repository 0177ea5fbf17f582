/// A file that is read and replaced as a whole.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/per/files.h"

namespace ara::per {

/// Far beyond the needs of a key-value storage; a larger file is not a store.
inline constexpr std::size_t max_file_size = std::size_t{16} << 20;

class Store_file {
 public:
  Store_file(std::string folder, const std::string& name, Files& files);

  [[nodiscard]] const std::string& path() const { return path_; }

  /// Returns nothing if there is no file. Throws ExceptionPhysicalStorageError if it cannot be read
  /// and ExceptionValidation if it is not a regular file or larger than max_file_size.
  [[nodiscard]] std::optional<std::string> read() const;

  /// Whenever power fails, the file then holds either its old content or all of `text`. After the
  /// return it holds `text`. Throws ExceptionPhysicalStorageError; the content is then the old one
  /// or, if only the very last step failed, `text`.
  void replace(std::string_view text) const;

  /// Removes the file that an interrupted replace() has left behind.
  void remove_leftover() const noexcept;

 private:
  void write_aside(std::string_view text) const;
  void sync_folder() const;

  const std::string folder_;
  const std::string path_;
  const std::string aside_;
  Files& files_;
};

}  // namespace ara::per
