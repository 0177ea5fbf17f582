/// The name of this application for execution, state and health management.
#pragma once

#include <string_view>

inline constexpr std::string_view application_instance = "POS__ORVEL1_Sys_Adaptive_01_instance1";
