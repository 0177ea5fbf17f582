/// Makes the one forwarded sample from a `positions` notification: selection by type and completion
/// from the other type's sample.
#pragma once

#include <span>

#include "clients/gnss_records.h"

namespace gnssClient {

/// Samples of a notification; null if there is none.
struct Selection {
  const lumo::services::gnss::datatypes::DT_positions_struct* chosen = nullptr;
  const lumo::services::gnss::datatypes::DT_positions_struct* other = nullptr;
};

/// The last sample of the wanted type and the last of any other type. Samples without a type count
/// for neither.
[[nodiscard]] Selection select(
    std::span<const lumo::services::gnss::datatypes::DT_positions_struct> samples,
    lumo::services::Position_type wanted);

/// Copies each physical value of `other` that `chosen` lacks, and the message counter if `chosen`
/// has none. Physical values of `chosen` stay.
void complete(lumo::services::gnss::datatypes::DT_positions_struct& chosen,
              const lumo::services::gnss::datatypes::DT_positions_struct& other);

}  // namespace gnssClient
