#include "platform/linux/per/location.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "ara/per/exceptions.h"
#include "platform/linux/core/application.h"

namespace ara::per {
namespace {

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

/// Returns 0 or errno. Syncs the new entry too, because a store is only as permanent as its folder.
int create_folder(const std::filesystem::path& folder) {
  const std::filesystem::path parent = folder.has_parent_path() ? folder.parent_path() : ".";
  if (::mkdir(folder.c_str(), 0750) != 0) {
    if (errno == EEXIST) return 0;
    if (errno != ENOENT || parent == folder) return errno;
    if (const int error = create_folder(parent); error != 0) return error;
    if (::mkdir(folder.c_str(), 0750) != 0 && errno != EEXIST) return errno;
  }
  const int fd = ::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    ::fsync(fd);
    ::close(fd);
  }
  return 0;
}

}  // namespace

std::string storage_folder() {
  const auto name = core::application().name;
  if (auto folder = core::variable("STORAGE_DIR"); !folder.empty()) return folder;
  // systemd joins several folders by colons. The unit's first folder holds the stores.
  if (auto folders = environment("STATE_DIRECTORY"); !folders.empty())
    return folders.substr(0, folders.find(':'));
  if (auto folder = environment("XDG_STATE_HOME"); folder.starts_with('/'))
    return folder.append("/").append(name);
  if (auto folder = environment("HOME"); !folder.empty())
    return folder.append("/.local/state/").append(name);
  throw ExceptionStorageLocationNotFound("no folder for the key-value storage: none of " +
                                         core::variable_name("STORAGE_DIR") +
                                         ", STATE_DIRECTORY, XDG_STATE_HOME and HOME is set");
}

void require_folder(const std::string& folder) {
  struct stat status {};
  if (::stat(folder.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) return;
  // Without a trailing slash the last component has a parent of its own.
  std::string_view trimmed = folder;
  while (trimmed.size() > 1 && trimmed.ends_with('/'))
    trimmed.remove_suffix(1);
  int error = create_folder(trimmed);
  // create_folder() reports no error if a file has the folder's name.
  if (error == 0 && (::stat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)))
    error = ENOTDIR;
  if (error != 0) {
    throw ExceptionStorageLocationNotFound(
        "storage folder \"" + folder +
        "\" is not there and cannot be created: " + std::generic_category().message(error));
  }
  throw ExceptionStorageLocationNotFound("storage folder \"" + folder +
                                         "\" was not there; it has been created");
}

std::string initial_data_folder(const std::string& port) {
  const auto name = core::application().name;
  if (auto folder = core::variable("INITDATA_DIR"); !folder.empty()) return folder;
  std::error_code error;
  const std::filesystem::path configured = std::filesystem::path("/etc") / name;
  if (std::filesystem::exists(configured / ("initdata-" + port + ".json"), error))
    return configured.string();
  const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return {};
  return (program.parent_path().parent_path() / "share" / name).string();
}

}  // namespace ara::per
