/// What the process takes from the machine.
#pragma once

#include <cstdint>

namespace mw::com::runtime {

struct Process_usage {
  std::uint64_t residentBytes = 0;  ///< memory in use, shared pages included
  std::uint32_t threads = 0;
  std::uint64_t uptimeMs = 0;  ///< since the start of the process, suspended time included
};

/// Of the calling process, now. Throws std::runtime_error when the system does not tell.
[[nodiscard]] Process_usage process_usage();

}  // namespace mw::com::runtime
