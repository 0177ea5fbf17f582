/// The D-Bus address of the component-state object, for the platform, which provides it, and for
/// tools that call it.
#pragma once

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/linux/core/application.h"

namespace ara::stm {

/// "org.adaptive.pos" for the application "pos".
[[nodiscard]] inline std::string bus_name() {
  return std::string("org.adaptive.").append(core::application().name);
}
[[nodiscard]] inline std::string interface_name() {
  return bus_name() + ".ComponentState1";
}
/// `instance` is the instance specifier of the component.
[[nodiscard]] inline std::string object_path(std::string_view instance) {
  return std::string("/org/adaptive/")
      .append(core::application().name)
      .append("/")
      .append(instance);
}

enum class Bus { session, system, none };

/// Chosen by the environment, see docs/component-state.md. Throws std::runtime_error for a value
/// that is none of the three.
[[nodiscard]] inline Bus chosen_bus() {
  constexpr std::string_view variable = "STATE_BUS";
  const std::string name = core::variable(variable);
  if (name.empty()) {
    return std::getenv("DBUS_SESSION_BUS_ADDRESS") != nullptr ? Bus::session : Bus::system;
  }
  if (name == "session") return Bus::session;
  if (name == "system") return Bus::system;
  if (name == "none") return Bus::none;
  throw std::runtime_error("environment variable " + core::variable_name(variable) +
                           ": expected session, system or none, found \"" + name + "\"");
}

}  // namespace ara::stm
