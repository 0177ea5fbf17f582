/// The first line of every program.
#pragma once

namespace ara::core {

/// Prepares the process for the rest of the platform; to be called before everything else in main.
/// From then on a write that finds no reader fails and raises no SIGPIPE. The descriptors 0 to 2
/// are open: each that the process was started without is /dev/null, so that no socket gets its
/// number. Starts no thread.
void Initialize() noexcept;

}  // namespace ara::core
