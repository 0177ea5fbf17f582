#include <algorithm>
#include <array>
#include <cctype>
#include <iostream>
#include <span>
#include <string>

#include "diagnosisService/DataIdentifiers.h"
#include "diagnosisService/MonitorTable.h"
#include "mw/com/runtime.h"
#include "tools/posctl/Commands.h"
#include "tools/posctl/Connect.h"
#include "tools/posctl/Record_json.h"

namespace posctl {
namespace {

using namespace lumo::services::diag;

/// A big-endian number of 3 or 5 bytes.
std::int64_t number(std::span<const std::uint8_t> bytes, bool is_signed) {
  std::int64_t value = is_signed && (bytes[0] & 0x80U) != 0 ? -1 : 0;
  for (const std::uint8_t byte : bytes)
    value = value * 256 + byte;
  return value;
}

/// What the bytes of a data identifier mean, where that is more than the bytes themselves.
template <class Output>
void explain(const Output&, Json&) {}

void explain(const PositioningMMPos& output, Json& json) {
  json["latitude"] = static_cast<double>(number(output.latitude, true)) / 1e9;
  json["longitude"] = static_cast<double>(number(output.longitude, true)) / 1e9;
  json["altitude"] = static_cast<double>(number(output.altitude, true)) / 100;
  json["timeOfDay"] = static_cast<double>(number(output.timeOfDay, false)) / 100;
}

/// Status bytes by name.
std::string name_of_status(const Json& value) {
  const auto status = value.get<std::uint64_t>();
  return status <= diagnosisService::kNotAvailable
             ? std::string(diagnosisService::statusName(static_cast<std::uint8_t>(status)))
             : "";
}

template <class Interface>
Json read(Deadline deadline) {
  const auto proxy = connect<DataIdentifierProxy<Interface>>(Interface::name, deadline);
  const auto output = result_of(proxy->Read({}), Interface::Read.name, deadline);
  Json json = to_json(output);
  explain(output, json);
  return json;
}

struct Entry {
  std::string_view did;
  Json (*read)(Deadline);
  bool status_bytes;
};
constexpr std::array<Entry, 7> entries{{
    {"14a0", read<d_14a0::DataIdentifier_PositioningStatusInputs>, true},
    {"14a1", read<d_14a1::DataIdentifier_PositioningStatusOutputs>, true},
    {"14a2", read<d_14a2::DataIdentifier_PositioningMMPos>, false},
    {"14a3", read<d_14a3::DataIdentifier_PositioningStatusSystem>, false},
    {"1190", read<d_1190::DataIdentifier_BDPSomeipDataBusServiceNotAvailable>, false},
    {"1191", read<d_1191::DataIdentifier_BDPSomeipDataBusServiceErrorValueReceived>, false},
    {"1192", read<d_1192::DataIdentifier_BDPSomeipDataBusServiceImplausible>, false},
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
    throw std::invalid_argument("there is no data identifier \"" + options.data_identifier +
                                "\"; d_14a0 to d_14a3 and d_1190 to d_1192 are");
  }
  const mw::com::runtime::Component_singleton runtime(options.node, false);
  const Json json = entry->read(deadline_in(options.timeout));
  if (options.json) {
    std::cout << json.dump() << std::endl;
    return 0;
  }
  for (const auto& [name, value] : json.items()) {
    std::cout << name << ": " << value.dump();
    if (entry->status_bytes) std::cout << " " << name_of_status(value);
    std::cout << "\n";
  }
  std::cout << std::flush;
  return 0;
}

}  // namespace posctl
