/// A found instance, as the runtime keeps it behind tq::com::Found_instance.
#pragma once

#include <cstdint>

#include "platform/someip/base/deployment.h"
#include "platform/someip/discovery/discovery_types.h"
#include "tq/com/runtime.h"

namespace tq::com {

class Remote_instance {
 public:
  Remote_instance(const someip::Service_deployment& deployed, std::uint16_t instance)
      : service(deployed), key{deployed.id, instance, deployed.major_version} {}
  const someip::Service_deployment& service;
  const someip::Instance_key key;
};

}  // namespace tq::com
