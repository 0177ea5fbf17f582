/// posctl fault: faults of the GNSS source.
#pragma once

#include <string>

#include "tools/posctl/way.h"

namespace posctl {

struct Fault_options {
  std::string what = "list";  ///< a fault to make, "list" or "clear"
  std::string name;           ///< to clear; empty: all
  bool json = false;
  double timeout = 5;  ///< seconds
  Way_options way;
};
/// Makes a fault in a running gnss-gateway, lists or clears them. Throws tools::Usage_error for a
/// fault that the gateway does not know.
int fault(const Fault_options& options);

}  // namespace posctl
