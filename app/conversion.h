/// Converts a position of the GNSS service to one of the Positioning service.
#pragma once

#include <array>
#include <cstdint>

#include "clients/gnss_records.h"
#include "posService/positioning_records.h"

/// Values of the published position's status members, statusPosition to statusMapMatching in
/// declaration order. GNSS positions have no such members.
using Output_defaults = std::array<std::uint32_t, 7>;

/// Copies the message counter and, under the same name, each measured quantity with a physical
/// value. Every other member that `defaults` does not fill stays absent, the type included.
[[nodiscard]] lumo::services::positioning::datatypes::DT_positions_struct to_positioning(
    const lumo::services::gnss::datatypes::DT_positions_struct& gnss,
    const Output_defaults& defaults);
