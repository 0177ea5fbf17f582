/// Orders to a gateway that makes faults, for the command and for the page.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/gnss-gateway/fault_control.h"
#include "tools/posctl/connect.h"
#include "tools/posctl/record_json.h"

namespace posctl {

/// Throws tools::No_answer when no gateway offers the service in time.
[[nodiscard]] std::unique_ptr<gateway::Fault_control_proxy> connect_to_gateway(Deadline deadline);

/// `order` is NAME[=VALUE][@START[+DURATION]]. Throws tools::Usage_error with the gateway's
/// sentence for one that it refuses.
void make_fault(gateway::Fault_control_proxy& control, const std::string& order, Deadline deadline);

/// Ends a fault by its name or its order, without one all. Returns the number of faults ended.
/// Throws std::runtime_error when no such fault is planned.
std::uint32_t end_faults(gateway::Fault_control_proxy& control,
                         const std::string& fault,
                         Deadline deadline);

/// {"schema": 1, "faults": […], "kinds": […]}.
[[nodiscard]] Json json_of(const std::vector<gateway::Planned_fault>& faults,
                           const std::vector<gateway::Known_fault>& kinds);

}  // namespace posctl
