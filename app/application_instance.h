/// Names of this application on its platform.
#pragma once

#include <string_view>

/// For execution, state and health management.
inline constexpr std::string_view application_instance = "POS__ORVEL1_Sys_Adaptive_01_instance1";
/// The node of the manifest.
inline constexpr const char* application_node = "POS";
/// The port of the key-value storage that has the settings.
inline constexpr const char* settings_port = "POS_Key_Value_Port";
