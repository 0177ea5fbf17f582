/// From a position that the GNSS service delivered to one that the Positioning service publishes.
#pragma once

#include <array>
#include <cstdint>

#include "clients/GnssRecords.h"
#include "posService/PositioningRecords.h"

/// Values of the published position's status members, statusPosition to statusMapMatching in
/// declaration order, which no GNSS position carries.
using Output_defaults = std::array<std::uint32_t, 7>;

/// Carries over the message counter and, under the same name, each measured quantity whose value is
/// physical; everything else that `defaults` does not fill stays absent, the type included.
[[nodiscard]] lumo::services::positioning::datatypes::DT_positions_struct to_positioning(
    const lumo::services::gnss::datatypes::DT_positions_struct& gnss,
    const Output_defaults& defaults);
