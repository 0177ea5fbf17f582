#include "platform/linux/com/local_socket.h"

#include <sys/stat.h>

#include <cstdlib>
#include <optional>

namespace tq::com {

namespace {

std::optional<std::string> variable(const char* name) {
  const char* const value = std::getenv(name);
  if (value == nullptr || *value == '\0') return std::nullopt;
  return value;
}

std::string socket_in(const std::string& folder, const std::string& node) {
  return folder + "/" + node + ".sock";
}

}  // namespace

std::string own_socket_path(const std::string& node) {
  if (const auto folder = variable("POS_RUNTIME_DIR")) return socket_in(*folder, node);
  if (const auto folders = variable("RUNTIME_DIRECTORY")) {
    return socket_in(folders->substr(0, folders->find(':')), node);
  }
  if (const auto parent = variable("XDG_RUNTIME_DIR")) {
    const std::string folder = *parent + "/pos";
    ::mkdir(folder.c_str(), 0700);  // a failure shows at the socket
    return socket_in(folder, node);
  }
  return {};
}

std::vector<std::string> socket_paths_of(const std::string& node) {
  if (const auto folder = variable("POS_RUNTIME_DIR")) return {socket_in(*folder, node)};
  std::vector<std::string> paths{socket_in("/run/pos", node)};
  if (const auto parent = variable("XDG_RUNTIME_DIR")) {
    paths.push_back(socket_in(*parent + "/pos", node));
  }
  return paths;
}

}  // namespace tq::com
