/// The first line of every program.
#pragma once

namespace ara::core {

/// Prepares the process for the rest of the platform. Call it before everything else in main. From
/// then on a write without a reader fails and raises no SIGPIPE. The descriptors 0 to 2 are open:
/// each one that the process lacked at its start is /dev/null, so that no socket gets its number.
/// Starts no thread.
void Initialize() noexcept;

}  // namespace ara::core
