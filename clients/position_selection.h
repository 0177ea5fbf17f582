/// From one `positions` notification to the one sample that is forwarded: selection by type and
/// completion from the other type's sample.
#pragma once

#include <span>

#include "clients/GnssRecords.h"

namespace gnssClient {

/// Samples of a notification; null where there is none.
struct Selection {
  const lumo::services::gnss::datatypes::DT_positions_struct* chosen = nullptr;
  const lumo::services::gnss::datatypes::DT_positions_struct* other = nullptr;
};

/// The last sample of the wanted type and the last of any other type. Samples without a type count
/// for neither.
[[nodiscard]] Selection select(
    std::span<const lumo::services::gnss::datatypes::DT_positions_struct> samples,
    lumo::services::Position_type wanted);

/// Takes over each physical value of `other` for which `chosen` has none, and the message counter
/// when `chosen` has none. What is physical in `chosen` stays.
void complete(lumo::services::gnss::datatypes::DT_positions_struct& chosen,
              const lumo::services::gnss::datatypes::DT_positions_struct& other);

}  // namespace gnssClient
