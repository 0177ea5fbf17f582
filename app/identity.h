/// The application's own facts for the platform, the same in each of its programs.
#pragma once

#include "ara/core/initialization.h"

/// The name "pos", the node application_node, and config/manifest.json as it was when this was
/// built.
[[nodiscard]] ara::core::Application positioning_application();
