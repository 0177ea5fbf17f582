#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>

#include "tools/posctl/Commands.h"

namespace posctl {
namespace {

constexpr const char* bus_name = "org.adaptive.pos";
constexpr const char* object_path = "/org/adaptive/pos/POS__ORVEL1_Sys_Adaptive_01_instance1";
constexpr const char* interface_name = "org.adaptive.pos.ComponentState1";

/// The bus that the application chooses from the same environment.
std::unique_ptr<sdbus::IConnection> bus() {
  const char* chosen = std::getenv("POS_STATE_BUS");
  const std::string name = chosen == nullptr ? "" : chosen;
  if (name == "session" || (name.empty() && std::getenv("DBUS_SESSION_BUS_ADDRESS") != nullptr)) {
    return sdbus::createSessionBusConnection();
  }
  if (name.empty() || name == "system") return sdbus::createSystemBusConnection();
  throw std::runtime_error("POS_STATE_BUS is \"" + name + "\": there is no bus to ask on");
}

}  // namespace

int request_state(const State_options& options) {
  std::uint32_t result = 0;
  try {
    const auto connection = bus();
    const auto application = sdbus::createProxy(*connection, bus_name, object_path);
    application->callMethod("RequestState")
        .onInterface(interface_name)
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
