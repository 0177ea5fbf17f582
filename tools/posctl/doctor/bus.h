/// The bus of the component states, for posctl doctor.
#pragma once

#include <functional>

#include "tools/posctl/connect.h"
#include "tools/posctl/doctor/facts.h"

namespace posctl::doctor {

/// Asks the bus of the environment whether the application has its name there. Returns at once; the
/// result waits for the answer until the deadline.
[[nodiscard]] std::function<Bus_state()> ask_bus(Deadline deadline);

}  // namespace posctl::doctor
