/// The component states of the application over D-Bus: asking for one, following the confirmations.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "tools/posctl/connect.h"

namespace posctl {

/// Returns the application's result, 0 for accepted. Throws tools::No_answer if none has come by
/// `deadline`, and std::runtime_error for an error of the bus.
[[nodiscard]] std::uint32_t request_component_state(const std::string& state,
                                                    std::uint32_t sequence_number,
                                                    Deadline deadline);

struct Component_confirmation {
  std::string state;
  std::uint32_t sequence_number = 0;
  std::uint32_t result = 0;
};

/// Calls `available` once: when the bus is there, or with the reason why it is not. Calls
/// `confirmed` for each decision of the application. Their thread lives until the process ends, so
/// both own the objects that they use.
void follow_component_states(std::function<void(bool available, const std::string& text)> available,
                             std::function<void(const Component_confirmation&)> confirmed);

}  // namespace posctl
