/// What the communication runtime has counted, and what the process takes from the machine.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace mw::com::runtime {

/// One counter of the communication runtime, with its value since the start.
struct Counter {
  std::string name;
  std::uint64_t value = 0;
};

/// Every counter of this process: what has been received, sent, dropped and refused. Callable from
/// any thread. Throws std::logic_error while no Component_singleton exists.
[[nodiscard]] std::vector<Counter> counters();

struct Process_usage {
  std::uint64_t residentBytes = 0;  ///< memory in use, shared pages included
  std::uint32_t threads = 0;
  std::uint64_t uptimeMs = 0;  ///< since the start of the process, suspended time included
};

/// Of the calling process, now. Throws std::runtime_error when the system does not tell.
[[nodiscard]] Process_usage process_usage();

}  // namespace mw::com::runtime
