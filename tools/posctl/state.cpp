#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/component_bus.h"

namespace posctl {

int request_state(const State_options& options) {
  const std::uint32_t result =
      request_component_state(options.state, options.sequence_number, deadline_in(options.timeout));
  tools::write_output(options.state + " confirmed with result " + std::to_string(result) + "\n");
  return result == 0 ? 0 : tools::exit_failed;
}

}  // namespace posctl
