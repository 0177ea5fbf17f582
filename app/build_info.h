/// Facts about the build, for the start-up log.
#pragma once

#include <string_view>

namespace build_info {

extern const std::string_view version;
extern const std::string_view build_time;  ///< the last build in which its libraries changed
extern const std::string_view middleware_release;
extern const std::string_view dfl_version;
extern const std::string_view dm_extensions_version;

}  // namespace build_info
