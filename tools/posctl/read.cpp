#include <algorithm>
#include <array>
#include <cctype>
#include <optional>
#include <string>

#include "diagnosisService/DataIdentifiers.h"
#include "mw/com/runtime.h"
#include "tools/Command.h"
#include "tools/posctl/Commands.h"
#include "tools/posctl/Connect.h"
#include "tools/posctl/Explain.h"

namespace posctl {
namespace {

using namespace lumo::services::diag;

template <class Interface>
Json read(Deadline deadline) {
  const auto proxy = connect<DataIdentifierProxy<Interface>>(Interface::name, deadline);
  return explain(result_of(proxy->Read({}), Interface::Read.name, deadline));
}

struct Entry {
  std::string_view did;
  Json (*read)(Deadline);
  bool status_bytes;
  std::optional<Fault_kind> faults = std::nullopt;
};
constexpr std::array<Entry, 7> entries{{
    {"14a0", read<d_14a0::DataIdentifier_PositioningStatusInputs>, true},
    {"14a1", read<d_14a1::DataIdentifier_PositioningStatusOutputs>, true},
    {"14a2", read<d_14a2::DataIdentifier_PositioningMMPos>, false},
    {"14a3", read<d_14a3::DataIdentifier_PositioningStatusSystem>, true},
    {"1190", read<d_1190::DataIdentifier_BDPSomeipDataBusServiceNotAvailable>, false,
     Fault_kind::not_available},
    {"1191", read<d_1191::DataIdentifier_BDPSomeipDataBusServiceErrorValueReceived>, false,
     Fault_kind::error_value},
    {"1192", read<d_1192::DataIdentifier_BDPSomeipDataBusServiceImplausible>, false,
     Fault_kind::implausible},
}};

/// "d_14a0", "0x14A0" and "14a0" name the same.
std::string normalized(std::string did) {
  std::transform(did.begin(), did.end(), did.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (const std::string_view prefix : {"d_", "0x"}) {
    if (did.starts_with(prefix)) did.erase(0, prefix.size());
  }
  return did;
}

}  // namespace

int read(const Read_options& options) {
  const std::string did = normalized(options.data_identifier);
  const auto* entry = std::find_if(entries.begin(), entries.end(),
                                   [&](const Entry& one) { return one.did == did; });
  if (entry == entries.end()) {
    throw tools::Usage_error("there is no data identifier \"" + options.data_identifier +
                             "\"; d_14a0 to d_14a3 and d_1190 to d_1192 are");
  }
  const mw::com::runtime::Component_singleton runtime(options.node, false);
  const Json json = entry->read(deadline_in(options.timeout));
  if (options.json) {
    tools::write_output(json.dump() + "\n");
    return 0;
  }
  std::string text;
  for (const auto& [name, value] : json.items()) {
    if (entry->faults) {
      for (const auto& fault : value)
        text += fault_text(*entry->faults, fault) + "\n";
      if (value.empty()) text += "none\n";
      continue;
    }
    text += name + ": " + value.dump();
    if (entry->status_bytes) text += " " + status_name(value);
    text += "\n";
  }
  tools::write_output(text);
  return 0;
}

}  // namespace posctl
