/// Makes the one forwarded sample from a `positions` notification: selection by type, completion
/// from the other type's sample, replacement of the timestamp.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "clients/GnssRecords.h"

namespace gnssClient {

enum class Position_type : std::uint32_t { gnss = 1, gnss_dr = 2 };

/// "GNSS" or "GNSS-DR".
[[nodiscard]] constexpr std::string_view to_text(Position_type type) {
  return type == Position_type::gnss_dr ? "GNSS-DR" : "GNSS";
}

/// Samples of a notification; null if there is none.
struct Selection {
  const lumo::services::gnss::datatypes::DT_positions_struct* chosen = nullptr;
  const lumo::services::gnss::datatypes::DT_positions_struct* other = nullptr;
};

/// The last sample of the wanted type and the last of any other type. Samples without a type count
/// for neither.
[[nodiscard]] Selection select(
    std::span<const lumo::services::gnss::datatypes::DT_positions_struct> samples,
    Position_type wanted);

/// Copies each physical value of `other` that `chosen` lacks, and the message counter if `chosen`
/// has none. Physical values of `chosen` stay.
void complete(lumo::services::gnss::datatypes::DT_positions_struct& chosen,
              const lumo::services::gnss::datatypes::DT_positions_struct& other);

/// Stamps the sample with a time on the precise local time base, as a physical value.
void set_timestamp(lumo::services::gnss::datatypes::DT_positions_struct& sample,
                   std::uint64_t time_us);

}  // namespace gnssClient
