/// The counters of the communication runtime, and the resources that the process uses.
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

/// Every counter of this process: messages received, sent, dropped and refused. Any thread may
/// call. Throws std::logic_error while no Component_singleton exists.
[[nodiscard]] std::vector<Counter> counters();

struct Process_usage {
  std::uint64_t residentBytes = 0;  ///< memory in use, shared pages included
  std::uint32_t threads = 0;
  std::uint64_t uptimeMs = 0;  ///< since the start of the process, suspended time included
};

/// The present usage of the calling process. Throws std::runtime_error if the system does not give
/// it.
[[nodiscard]] Process_usage process_usage();

}  // namespace mw::com::runtime
