#include "platform/linux/com/socket_paths.h"

#include <sys/stat.h>

#include <cstdlib>

#include "platform/linux/core/application.h"

namespace tq::com {

namespace {

std::string environment(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}
std::string chosen_folder() {
  return ara::core::variable("RUNTIME_DIR");
}
/// The application's folder in `parent`.
std::string folder_in(const std::string& parent) {
  return (parent + "/").append(ara::core::application().name);
}
std::string socket_in(const std::string& folder, const std::string& node) {
  return folder + "/" + node + ".sock";
}

}  // namespace

std::string own_socket_path(const std::string& node) {
  if (const auto folder = chosen_folder(); !folder.empty()) return socket_in(folder, node);
  if (const auto folders = environment("RUNTIME_DIRECTORY"); !folders.empty()) {
    return socket_in(folders.substr(0, folders.find(':')), node);
  }
  if (const auto parent = environment("XDG_RUNTIME_DIR"); !parent.empty()) {
    const std::string folder = folder_in(parent);
    ::mkdir(folder.c_str(), 0700);  // a failure shows at the socket
    return socket_in(folder, node);
  }
  return {};
}

std::vector<std::string> socket_paths_of(const std::string& node) {
  if (const auto folder = chosen_folder(); !folder.empty()) return {socket_in(folder, node)};
  std::vector<std::string> paths{socket_in(folder_in("/run"), node)};
  if (const auto parent = environment("XDG_RUNTIME_DIR"); !parent.empty()) {
    paths.push_back(socket_in(folder_in(parent), node));
  }
  return paths;
}

}  // namespace tq::com
