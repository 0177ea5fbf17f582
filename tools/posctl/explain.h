/// What the bytes of the data identifiers mean, as JSON.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "diagnosisService/data_identifiers.h"
#include "tools/posctl/record_json.h"

namespace posctl {

/// Status bytes by name of the input, output or system function, as numbers.
[[nodiscard]] Json explain(const lumo::services::diag::PositioningStatusInputs& statuses);
[[nodiscard]] Json explain(const lumo::services::diag::PositioningStatusOutputs& statuses);
[[nodiscard]] Json explain(const lumo::services::diag::PositioningStatusSystem& statuses);

/// Degrees, metres and seconds, null for what is not valid; the map matching's members as numbers.
[[nodiscard]] Json explain(const lumo::services::diag::PositioningMMPos& position);

using lumo::services::diag::fault_entry_size;
/// One object for each affected element: service, element (none for the service as a whole),
/// whether the fault is present, and how often it appeared. Throws std::runtime_error for bytes
/// that are no such entries.
[[nodiscard]] Json explain_faults(std::span<const std::uint8_t> entries);
template <lumo::services::diag::Data_bus_fault Fault>
[[nodiscard]] Json explain(const lumo::services::diag::Data_bus_fault_records<Fault>& faults) {
  return {{"faults", explain_faults(faults.entries)}};
}

/// "Nominal", "Error", "Init", "NotAvailable", or the number of another value.
[[nodiscard]] std::string status_name(std::uint8_t status);

/// "8th".
[[nodiscard]] std::string ordinal(std::uint64_t number);

/// "GNSS" or "GNSS.positions" of a fault of explain_faults().
[[nodiscard]] std::string fault_subject(const Json& fault);

/// A fault of explain_faults() as a sentence: "GNSS is missing now, for the 3rd time".
[[nodiscard]] std::string fault_text(lumo::services::diag::Data_bus_fault kind, const Json& fault);

}  // namespace posctl
