/// The running application's own facts, and the environment variables that begin with its name.
#pragma once

#include <string>
#include <string_view>

#include "ara/core/initialization.h"

namespace ara::core {

/// As Initialize() received it. Until then the name is "adaptive".
[[nodiscard]] const Application& application() noexcept;

/// Returns "POS_MANIFEST" for the purpose "MANIFEST" in the application "pos".
[[nodiscard]] std::string variable_name(std::string_view purpose);

/// The value of that variable; empty if it is not set.
[[nodiscard]] std::string variable(std::string_view purpose);

}  // namespace ara::core
