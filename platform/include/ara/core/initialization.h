/// The first line of every program.
#pragma once

#include <string_view>

namespace ara::core {

/// The facts of a program from which the platform derives every name that two applications of one
/// machine must not share. The texts live as long as the process.
struct Application {
  /// Lower-case letters, digits and '_', a letter first; at most 32. "pos" gives the environment
  /// variables POS_…, the folders share/pos, $XDG_STATE_HOME/pos and $XDG_RUNTIME_DIR/pos, and the
  /// D-Bus name org.adaptive.pos. The programs of one application share its name.
  std::string_view name;
  /// The node of a Component_singleton without a name; empty: `name`.
  std::string_view node = {};
  /// The deployment manifest of a process that finds no file; empty: it needs a file.
  std::string_view manifest = {};
};

/// Prepares the process for the rest of the platform. Call it before everything else in main, once.
/// From then on a write without a reader fails and raises no SIGPIPE. The descriptors 0 to 2 are
/// open: each one that the process lacked at its start is /dev/null, so that no socket gets its
/// number. Starts no thread. Throws std::invalid_argument for a name of another form.
void Initialize(const Application& application);

}  // namespace ara::core
