/// How posctl reaches the application: through its Unix socket on the same machine, or over the
/// network.
#pragma once

#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

#include "mw/com/runtime.h"
#include "tools/command.h"

namespace posctl {

/// The application's node of the manifest.
inline constexpr const char* application_node = "POS";

struct Way_options {
  std::string node;     ///< of the manifest, to use the network; empty: "posctl", if it is needed
  std::string connect;  ///< path of a socket, or IP address of the application; empty: either way
};

/// The runtime of a command. Prefers the socket if it is there and the options and the environment
/// ask for nothing else.
class Way {
 public:
  /// Throws tools::Usage_error for options that make no sense, and std::runtime_error if the way
  /// cannot be taken.
  explicit Way(const Way_options& options);

  /// For messages: which way, and why not the other one.
  [[nodiscard]] const std::string& text() const { return text_; }

 private:
  std::string text_;
  std::optional<mw::com::runtime::Component_singleton> runtime_;
};

/// Calls `command` with the runtime in place. To the message of an exception it adds the way that
/// was taken.
template <class Command>
auto on_the_way(const Way_options& options, Command&& command) {
  const Way way(options);
  try {
    return command();
  } catch (const std::system_error&) {
    throw;  // of standard output
  } catch (const tools::Usage_error&) {
    throw;
  } catch (const tools::No_answer& error) {
    throw tools::No_answer(error.what() + (" (" + way.text() + ")"));
  } catch (const std::exception& error) {
    throw std::runtime_error(error.what() + (" (" + way.text() + ")"));
  }
}

}  // namespace posctl
