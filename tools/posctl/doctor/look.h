/// Looks at machine, network and application for posctl doctor.
#pragma once

#include <string>

#include "tools/posctl/doctor/facts.h"

namespace posctl::doctor {

/// Observes for two seconds and returns at most a second later. All receivers listen at the
/// same time. Takes over the environment of the application, as far as this program has none of its
/// own: manifest, storage, bus, pipe of the log. Throws std::runtime_error if `node` is not one of
/// the manifest, and std::system_error if the machine refuses a thread or a descriptor.
[[nodiscard]] Facts look(const std::string& node);

}  // namespace posctl::doctor
