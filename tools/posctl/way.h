/// How posctl reaches the application.
#pragma once

#include <string>

#include "mw/com/runtime.h"

namespace posctl {

struct Way_options {
  std::string node = "posctl";  ///< of the manifest
};

/// Calls `command` with the runtime in place.
template <class Command>
auto on_the_way(const Way_options& options, Command&& command) {
  const mw::com::runtime::Component_singleton runtime(options.node, false);
  return command();
}

}  // namespace posctl
