/// The monitors of this application: identifier, name, and the reported status byte.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "binding/diagnosis_values.h"

namespace diagnosisService {

using lumo::services::diag::Status;
using lumo::services::diag::Status_group;

inline constexpr std::size_t input_count = 11;
inline constexpr std::size_t output_count = 3;
inline constexpr std::size_t system_count = 14;

/// Indices of sensors in the setup and in the input status.
inline constexpr std::size_t sensor_gnss = 0;
inline constexpr std::size_t sensor_time_master = 8;

/// Bytes of the system status; the first two govern outputs.
inline constexpr std::size_t system_pgf = 1;
inline constexpr std::size_t system_map_matching = 12;
inline constexpr std::size_t system_reserved13 = 13;

/// Monitors of the application's inputs and outputs.
inline constexpr std::uint32_t monitor_input_gnss = 0x83D101;
inline constexpr std::uint32_t monitor_output_dead_reckoning = 0x83D104;
inline constexpr std::uint32_t monitor_input_time = 0x83D10B;

struct Monitor {
  std::uint32_t identifier;
  std::string_view name;
  Status_group group;
  std::uint8_t byte;  ///< within its group
};

/// In ascending order of the identifiers. Two monitors report system byte 0, deliberately.
inline constexpr std::array monitor_table{
    Monitor{0x83D100, "POS_Overall_System", Status_group::system, 0},
    Monitor{monitor_input_gnss, "POS_Input_GNSS", Status_group::input, sensor_gnss},
    Monitor{0x83D102, "POS_Input_Odometry", Status_group::input, 1},
    Monitor{0x83D103, "POS_Output_MapMatched", Status_group::output, 0},
    Monitor{monitor_output_dead_reckoning, "POS_Output_DeadReckoning", Status_group::output, 1},
    Monitor{0x83D105, "POS_Output_Static", Status_group::output, 2},
    Monitor{0x83D106, "POS_Input_Landmarks_FrontCamera", Status_group::input, 3},
    Monitor{0x83D107, "POS_Input_Landmarks_TopView", Status_group::input, 4},
    Monitor{0x83D108, "POS_Input_Landmarks_Lidar", Status_group::input, 5},
    Monitor{0x83D109, "POS_Input_Landmarks_Radar", Status_group::input, 6},
    Monitor{0x83D10A, "POS_Input_Map", Status_group::input, 7},
    Monitor{monitor_input_time, "POS_Input_Time", Status_group::input, sensor_time_master},
    Monitor{0x83D10C, "POS_Input_BV_Lines", Status_group::input, 9},
    Monitor{0x83D10D, "POS_Input_Odometry_FrontCamera", Status_group::input, 10},
    Monitor{0x83D10E, "POS_Input_Position_FrontCamera", Status_group::input, 2},
    Monitor{0x83D120, "POS_LBL_System", Status_group::system, 3},
    Monitor{0x83D121, "POS_PGF_System", Status_group::system, system_pgf},
    Monitor{0x83D122, "POS_MapMatching_System", Status_group::system, system_map_matching},
    Monitor{0x83D123, "POS_LaneMatching_System", Status_group::system, 0},
    Monitor{0x83D401, "BDP_service_registry_not_attainable", Status_group::none, 0},
    Monitor{0x83D501, "BDP_data_bus_service_not_available", Status_group::none, 0},
    Monitor{0x83D502, "BDP_data_bus_service_error_value_received", Status_group::none, 0},
    Monitor{0x83D503, "BDP_data_bus_service_implausible", Status_group::none, 0},
};

inline constexpr std::size_t no_monitor = monitor_table.size();

static_assert(std::is_sorted(monitor_table.begin(),
                             monitor_table.end(),
                             [](const auto& a, const auto& b) {
                               return a.identifier < b.identifier;
                             }));

/// Indices in monitor_table by the distance from the first identifier: looked up for each position.
inline constexpr auto monitor_places = [] {
  constexpr auto first = monitor_table.front().identifier;
  std::array<std::uint8_t, monitor_table.back().identifier - first + 1> places;
  places.fill(no_monitor);
  for (std::size_t i = 0; i < monitor_table.size(); ++i) {
    places[monitor_table[i].identifier - first] = static_cast<std::uint8_t>(i);
  }
  return places;
}();

/// Index in monitor_table, no_monitor for an unknown identifier.
[[nodiscard]] constexpr std::size_t monitor_index(std::uint32_t identifier) {
  const auto distance = identifier - monitor_table.front().identifier;  // huge if before it
  return distance < monitor_places.size() ? monitor_places[distance] : no_monitor;
}

/// Index in monitor_table of the first monitor that reports this byte.
[[nodiscard]] constexpr std::size_t monitor_index(Status_group group, std::size_t byte) {
  const auto found = std::find_if(
      monitor_table.begin(), monitor_table.end(),
      [&](const Monitor& monitor) { return monitor.group == group && monitor.byte == byte; });
  return static_cast<std::size_t>(found - monitor_table.begin());
}

[[nodiscard]] constexpr std::string_view monitor_name(std::uint32_t identifier) {
  const auto index = monitor_index(identifier);
  return index == no_monitor ? "unknown" : monitor_table[index].name;
}

}  // namespace diagnosisService
