#include "ara/phm/supervision_entity.h"

#include <stdexcept>
#include <string>
#include <system_error>

#include "platform/linux/exec/notify_socket.h"

namespace ara::phm {

// The service manager supervises the process as a whole. Every checkpoint of every entity feeds its
// one watchdog; the limit is the unit's WatchdogSec.
void SupervisionEntity::CheckpointReached(std::uint16_t entity_id,
                                          std::uint16_t checkpoint_id) const {
  const int error = exec::Notify_socket().send("WATCHDOG=1");
  if (error == 0) return;
  throw std::runtime_error(
      "checkpoint " + std::to_string(checkpoint_id) + " of entity " + std::to_string(entity_id) +
      " of \"" + client_.instance().ToString() +
      "\" could not be reported to the service manager: " + std::generic_category().message(error));
}

}  // namespace ara::phm
