/// The D-Bus address of the component-state object, for the platform, which provides it, and for
/// tools that call it.
#pragma once

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

namespace ara::stm {

inline constexpr const char* bus_name = "org.adaptive.pos";
inline constexpr const char* interface = "org.adaptive.pos.ComponentState1";

/// `instance` is the instance specifier of the component.
[[nodiscard]] inline std::string object_path(std::string_view instance) {
  return "/org/adaptive/pos/" + std::string(instance);
}

enum class Bus { session, system, none };

/// Chosen by the environment, see docs/component-state.md. Throws std::runtime_error for a value
/// that is none of the three.
[[nodiscard]] inline Bus chosen_bus() {
  const char* chosen = std::getenv("POS_STATE_BUS");
  if (chosen == nullptr || *chosen == '\0') {
    return std::getenv("DBUS_SESSION_BUS_ADDRESS") != nullptr ? Bus::session : Bus::system;
  }
  const std::string_view name = chosen;
  if (name == "session") return Bus::session;
  if (name == "system") return Bus::system;
  if (name == "none") return Bus::none;
  throw std::runtime_error(
      "environment variable POS_STATE_BUS: expected session, system or none, found \"" +
      std::string(name) + "\"");
}

}  // namespace ara::stm
