#include <algorithm>
#include <cctype>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "diagnosisService/data_identifiers.h"
#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/connect.h"
#include "tools/posctl/explain.h"

namespace posctl {
namespace {

using namespace lumo::services::diag;

template <class Interface>
Json read(Deadline deadline) {
  const auto proxy = connect<Data_identifier_proxy<Interface>>(Interface::name, deadline);
  return explain(result_of(proxy->Read({}), Interface::Read.name, deadline));
}

struct Entry {
  std::string_view did;  ///< such as "d_14a0"
  Json (*read)(Deadline);
  bool status_bytes;
  std::optional<Data_bus_fault> faults = std::nullopt;
};

std::vector<Entry> entries() {
  std::vector<Entry> all;
  for_each_interface<Data_identifiers>([&]<class Interface>() {
    using Output = typename Interface::Output;
    Entry entry{identifier_of(Interface::name), read<Interface>,
                !std::is_same_v<Output, PositioningMMPos>};
    if constexpr (requires { Output::fault; }) {
      entry.status_bytes = false;
      entry.faults = Output::fault;
    }
    all.push_back(entry);
  });
  return all;
}

/// "d_14a0", "0x14A0" and "14a0" name the same.
std::string normalized(std::string did) {
  std::transform(did.begin(), did.end(), did.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (const std::string_view prefix : {"d_", "0x"}) {
    if (did.starts_with(prefix)) did.erase(0, prefix.size());
  }
  return "d_" + did;
}

}  // namespace

int read(const Read_options& options) {
  const std::string did = normalized(options.data_identifier);
  const auto all = entries();
  const auto entry = std::ranges::find(all, did, &Entry::did);
  if (entry == all.end()) {
    std::string known;
    for (const Entry& one : all)
      known.append(known.empty() ? "" : ", ").append(one.did);
    throw tools::Usage_error("there is no data identifier \"" + options.data_identifier +
                             "\"; expected one of " + known);
  }
  const Json json =
      on_the_way(options.way, [&] { return entry->read(deadline_in(options.timeout)); });
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
