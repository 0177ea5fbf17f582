/// The page that posctl status prints.
#pragma once

#include <string>

#include "tools/posctl/record_json.h"

namespace posctl {

/// `coloured`: the verdict in a colour.
[[nodiscard]] std::string status_page(const Json& status, bool coloured);

}  // namespace posctl
