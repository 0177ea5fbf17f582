#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <iostream>
#include <memory>
#include <stdexcept>

#include "app/application_instance.h"
#include "platform/linux/stm/state_bus.h"
#include "tools/posctl/Commands.h"

namespace posctl {
namespace {

/// The bus that the application chooses from the same environment.
std::unique_ptr<sdbus::IConnection> bus() {
  switch (ara::stm::ChosenBus()) {
    case ara::stm::Bus::kSession:
      return sdbus::createSessionBusConnection();
    case ara::stm::Bus::kSystem:
      return sdbus::createSystemBusConnection();
    case ara::stm::Bus::kNone:
      break;
  }
  throw std::runtime_error("POS_STATE_BUS is \"none\": there is no bus to ask on");
}

}  // namespace

int request_state(const State_options& options) {
  std::uint32_t result = 0;
  try {
    const auto connection = bus();
    const auto application = sdbus::createProxy(*connection, ara::stm::kBusName,
                                                ara::stm::ObjectPath(kApplicationInstance));
    application->callMethod("RequestState")
        .onInterface(ara::stm::kInterface)
        .withTimeout(std::chrono::microseconds(static_cast<std::int64_t>(options.timeout * 1e6)))
        .withArguments(options.state, options.sequence_number)
        .storeResultsTo(result);
  } catch (const sdbus::Error& error) {
    throw std::runtime_error("component state: " + error.getMessage());
  }
  std::cout << options.state << " confirmed with result " << result << std::endl;
  return result == 0 ? 0 : 1;
}

}  // namespace posctl
