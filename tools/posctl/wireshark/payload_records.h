/// Records as an analyser shows them: status bytes by name, faults of a consumed service member by
/// member.
#pragma once

#include <concepts>
#include <vector>

#include "binding/interface_description.h"
#include "diagnosisService/data_identifiers.h"

namespace posctl::wireshark {

/// Whether the bytes of a record are status bytes. Its 16-bit members hold two of them each.
template <class Record>
concept Has_statuses = requires {
  { &Record::group } -> std::same_as<const lumo::services::diag::Status_group*>;
};
/// Whether its bytes are entries of faults.
template <class Record>
concept Has_faults = requires {
  { &Record::fault } -> std::same_as<const lumo::services::diag::Data_bus_fault*>;
};

}  // namespace posctl::wireshark

template <posctl::wireshark::Has_statuses Record, class Value>
requires(sizeof(Value) == 1) struct binding::Described_as<Record, Value> {
  using type = lumo::services::diag::Status;
};
template <posctl::wireshark::Has_faults Record, class Value>
struct binding::Described_as<Record, Value> {
  using type = std::vector<lumo::services::diag::Fault_entry>;
};
