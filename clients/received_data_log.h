/// The one-line texts of received records, for the log of received data. Numbers have up to 16
/// significant digits; the quality follows each physical value.
#pragma once

#include <cstdint>
#include <string>

#include "clients/gnss_records.h"

namespace gnssClient {

/// Appends the line of one position. `arrival_us` is the arrival of its notification on the precise
/// local time base; a complete timestamp is compared with it.
void append_line(std::string& text,
                 const lumo::services::gnss::datatypes::DT_positions_struct& position,
                 std::uint64_t arrival_us);

void append_line(std::string& text,
                 const lumo::services::gnss::datatypes::DT_positionsQuality_struct& quality);

/// Appends a floating-point number in the form of a text stream with precision 16 in general
/// notation.
void append_number(std::string& text, double value);

}  // namespace gnssClient
