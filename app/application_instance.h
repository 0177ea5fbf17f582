/// The name under which execution, state and health management know this application.
#pragma once

#include <string_view>

inline constexpr std::string_view kApplicationInstance = "POS__ORVEL1_Sys_Adaptive_01_instance1";
