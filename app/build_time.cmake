# Defines build_info::build_time as the present time, or as that of the environment variable SOURCE_DATE_EPOCH:
# cmake -D OUTPUT=<file> -P build_time.cmake
string(TIMESTAMP time "%Y-%m-%d %H:%M:%S UTC" UTC)
file(CONFIGURE OUTPUT ${OUTPUT} @ONLY CONTENT
[[#include "app/build_info.h"

namespace build_info {

const std::string_view build_time = "@time@";

}  // namespace build_info
]])
