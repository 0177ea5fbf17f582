/// Requests of the page: a client names an action, and the server does it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace posctl::serve {

struct Action {
  enum class Kind : std::uint8_t { init_monitor, component_state, make_fault, end_faults };

  Kind kind{};
  std::int64_t id = 0;  ///< comes back with the answer
  /// Of the monitor, or of the component state; the order of a fault; the fault to end, empty: all.
  std::string name;
  std::string reason;  ///< of the initialisation
};

/// The action that a text frame holds. Throws tools::Usage_error if it holds none.
[[nodiscard]] Action action_of(std::string_view text);

/// Does what clients ask for. One thread calls.
class Actor {
 public:
  Actor() = default;
  virtual ~Actor() = default;
  Actor(const Actor&) = delete;
  Actor& operator=(const Actor&) = delete;

  /// Returns the effect in words. May wait for some seconds. Throws an exception with the client's
  /// mistake or the cause of the failure.
  [[nodiscard]] virtual std::string act(const Action& action) = 0;
};

}  // namespace posctl::serve
