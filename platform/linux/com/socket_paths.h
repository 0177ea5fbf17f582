/// Where the Unix sockets of the nodes of this machine are.
#pragma once

#include <string>
#include <vector>

namespace tq::com {

/// The path at which a node listens: `<folder>/<node>.sock`. For the application "pos" the folder
/// is $POS_RUNTIME_DIR, else $RUNTIME_DIRECTORY of systemd, else $XDG_RUNTIME_DIR/pos, which is
/// made if it is missing. Empty when the environment names none of them.
[[nodiscard]] std::string own_socket_path(const std::string& node);

/// The paths at which a client looks for a node, the first one first: in $POS_RUNTIME_DIR, or
/// without it in /run/pos and $XDG_RUNTIME_DIR/pos.
[[nodiscard]] std::vector<std::string> socket_paths_of(const std::string& node);

}  // namespace tq::com
