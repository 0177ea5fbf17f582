/// Records as an analyser shows them: status bytes by name, faults of a consumed service member by
/// member.
#pragma once

#include <cstdint>
#include <tuple>
#include <type_traits>
#include <vector>

#include "binding/codec.h"
#include "binding/diagnosis_values.h"
#include "binding/interface_description.h"
#include "tools/posctl/services.h"

namespace posctl::wireshark {

/// The five bytes of a fault of a consumed service. Only the analyser reads them as a record.
struct Fault_entry {
  lumo::services::diag::Faulty_service service{};
  std::uint8_t element = 0;
  bool present = false;
  std::uint16_t occurrences = 0;
};

}  // namespace posctl::wireshark

template <>
struct binding::Description<posctl::wireshark::Fault_entry> {
  using Record = posctl::wireshark::Fault_entry;
  static constexpr std::string_view name = "fault";
  static constexpr auto entries =
      std::tuple{plain("service", &Record::service), plain("element", &Record::element),
                 plain("present", &Record::present), plain("occurrences", &Record::occurrences)};
};
/// The entries have no length field of their own.
template <>
inline constexpr binding::Serialization_settings
    binding::settings_of<posctl::wireshark::Fault_entry>{.structure_length_field_size = 0};

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
  using type = std::vector<posctl::wireshark::Fault_entry>;
};
