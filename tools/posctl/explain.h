/// What the bytes of the data identifiers mean, as JSON.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "binding/application_state.h"
#include "diagnosisService/data_identifiers.h"
#include "diagnosisService/monitor_table.h"
#include "tools/posctl/record_json.h"

namespace posctl {

/// Status bytes by name of the input, output or system function, as numbers.
[[nodiscard]] Json explain(const lumo::services::diag::PositioningStatusInputs& statuses);
[[nodiscard]] Json explain(const lumo::services::diag::PositioningStatusOutputs& statuses);
[[nodiscard]] Json explain(const lumo::services::diag::PositioningStatusSystem& statuses);

/// Degrees, metres and seconds, null for what is not valid; the map matching's members as numbers.
[[nodiscard]] Json explain(const lumo::services::diag::PositioningMMPos& position);

/// Service, element (none for the service as a whole), whether the fault is present, and how often
/// it appeared.
[[nodiscard]] Json explain(const lumo::services::diag::Fault_entry& fault);
[[nodiscard]] Json explain(const binding::Fault_age& fault);
/// Throws std::runtime_error for bytes that are no whole entries.
[[nodiscard]] std::vector<lumo::services::diag::Fault_entry> fault_entries(
    std::span<const std::uint8_t> bytes);
/// Its "faults" has an object for each affected element.
template <lumo::services::diag::Data_bus_fault Fault>
[[nodiscard]] Json explain(const lumo::services::diag::Data_bus_fault_records<Fault>& faults) {
  Json explained = Json::array();
  for (const auto& entry : fault_entries(faults.entries))
    explained.push_back(explain(entry));
  return {{"faults", std::move(explained)}};
}

/// "Nominal", "Error", "Init", "NotAvailable", or the number of another value.
[[nodiscard]] std::string status_name(std::uint8_t status);

/// The input, output or system function of a status; empty if there is none.
[[nodiscard]] std::string function_of(const binding::Status_age& status);
/// The status that a monitor reports; null if the state has none.
[[nodiscard]] const binding::Status_age* status_of(const diagnosisService::Monitor& monitor,
                                                   const binding::Diagnosis_state& state);

/// "8th".
[[nodiscard]] std::string ordinal(std::uint64_t number);

/// "GNSS" or "GNSS.positions" of an explained fault.
[[nodiscard]] std::string fault_subject(const Json& fault);

/// An explained fault as a sentence: "GNSS is missing now, for the 3rd time".
[[nodiscard]] std::string fault_text(lumo::services::diag::Data_bus_fault kind, const Json& fault);

}  // namespace posctl
