#include <algorithm>
#include <cctype>
#include <iostream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "diagnosisService/DataIdentifiers.h"
#include "mw/com/runtime.h"
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
  std::string_view did;  ///< such as "d_14a0"
  Json (*read)(Deadline);
  bool status_bytes;
};

std::vector<Entry> entries() {
  std::vector<Entry> all;
  for_each_interface<Data_identifiers>([&]<class Interface>() {
    using Output = typename Interface::Output;
    constexpr bool numbers = std::is_same_v<Output, PositioningMMPos> || requires {
      Output::fault;
    };
    all.push_back({identifier_of(Interface::name), read<Interface>, !numbers});
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
    throw std::invalid_argument("there is no data identifier \"" + options.data_identifier +
                                "\"; expected one of " + known);
  }
  const mw::com::runtime::Component_singleton runtime(options.node, false);
  const Json json = entry->read(deadline_in(options.timeout));
  if (options.json) {
    std::cout << json.dump() << std::endl;
    return 0;
  }
  for (const auto& [name, value] : json.items()) {
    if (name == "faults") {
      for (const auto& fault : value)
        std::cout << fault_text(fault) << "\n";
      if (value.empty()) std::cout << "none\n";
      continue;
    }
    std::cout << name << ": " << value.dump();
    if (entry->status_bytes) std::cout << " " << status_name(value);
    std::cout << "\n";
  }
  std::cout << std::flush;
  return 0;
}

}  // namespace posctl
