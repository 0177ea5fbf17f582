/// Records as an analyser shows them: status bytes by name, faults of a consumed service member by
/// member.
#pragma once

#include <type_traits>
#include <vector>

#include "binding/interface_description.h"
#include "diagnosisService/data_identifiers.h"

namespace posctl::wireshark {

/// Whether the bytes of a record are status bytes. Its 16-bit members hold two of them each.
template <class Record>
inline constexpr bool has_statuses =
    std::is_same_v<Record, lumo::services::diag::PositioningStatusInputs> ||
    std::is_same_v<Record, lumo::services::diag::PositioningStatusOutputs> ||
    std::is_same_v<Record, lumo::services::diag::PositioningStatusSystem>;
template <class Record>
inline constexpr bool has_faults = false;
template <lumo::services::diag::Data_bus_fault Fault>
inline constexpr bool has_faults<lumo::services::diag::Data_bus_fault_records<Fault>> = true;

}  // namespace posctl::wireshark

template <class Record, class Value>
requires(posctl::wireshark::has_statuses<Record> &&
         sizeof(Value) == 1) struct binding::Described_as<Record, Value> {
  using type = lumo::services::diag::Status;
};
template <class Record, class Value>
requires(posctl::wireshark::has_faults<Record>) struct binding::Described_as<Record, Value> {
  using type = std::vector<lumo::services::diag::Fault_entry>;
};
