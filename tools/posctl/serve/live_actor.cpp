#include "tools/posctl/serve/live_actor.h"

#include <stdexcept>

#include "tools/command.h"
#include "tools/posctl/component_bus.h"
#include "tools/posctl/connect.h"
#include "tools/posctl/fault_orders.h"
#include "tools/posctl/monitor_reports.h"

namespace posctl::serve {

std::string Live_actor::act(const Action& action) {
  constexpr double time = 5;
  const std::lock_guard lock(mutex_);
  if (!problem_.empty() && action.kind != Action::Kind::component_state)
    throw tools::No_answer("no way to the application: " + problem_);
  const auto deadline = deadline_in(time);
  switch (action.kind) {
    case Action::Kind::init_monitor:
      return initialise_monitor(monitor_instance(action.name), init_reason(action.reason),
                                deadline);
    case Action::Kind::make_fault:
      make_fault(*connect_to_gateway(deadline), action.name, deadline);
      return "the gateway makes the fault " + action.name;
    case Action::Kind::end_faults: {
      const auto count = end_faults(*connect_to_gateway(deadline), action.name, deadline);
      return count == 1 ? "1 fault ended" : std::to_string(count) + " faults ended";
    }
    case Action::Kind::component_state:
      break;
  }
  const auto result = request_component_state(action.name, 1, deadline);
  if (result != 0)
    throw std::runtime_error(action.name + " was refused with " + std::to_string(result));
  return action.name + " is confirmed";
}

void Live_actor::change_way(const std::function<std::string()>& change) {
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (lock.owns_lock()) problem_ = change();
}

}  // namespace posctl::serve
