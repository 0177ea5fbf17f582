/// What a client may ask the server to do.
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

/// Of a text frame. Throws tools::Usage_error for what is no action.
[[nodiscard]] Action action_of(std::string_view text);

/// Does what clients ask for. One thread calls.
class Actor {
 public:
  Actor() = default;
  virtual ~Actor() = default;
  Actor(const Actor&) = delete;
  Actor& operator=(const Actor&) = delete;

  /// Returns the effect in words. May wait for some seconds. Throws what a client did wrong, or why
  /// it failed.
  [[nodiscard]] virtual std::string act(const Action& action) = 0;
};

}  // namespace posctl::serve
