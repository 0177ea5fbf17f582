/// How posctl reaches the application: through its Unix socket on the same machine, or over the
/// network.
#pragma once

#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "mw/com/runtime.h"
#include "platform/someip/base/endpoint.h"
#include "tools/command.h"

namespace posctl {

struct Way_options {
  std::string node;     ///< of the manifest, to use the network; empty: "posctl", if it is needed
  std::string connect;  ///< path of a socket, or IP address of the application; empty: either way
};

/// The first of the addresses that this machine has.
[[nodiscard]] std::optional<someip::Address> own_address(
    const std::vector<someip::Address>& addresses);

/// A way that could be taken at this moment.
struct Possible_way {
  std::string socket;  ///< its path; empty: over the network
  std::string node;
  std::optional<someip::Address> only;  ///< the application's
  std::string text;                     ///< for messages: which way, and why not the other one

  /// Whatever the texts say.
  [[nodiscard]] bool is_same(const Possible_way& other) const {
    return socket == other.socket && node == other.node && only == other.only;
  }
};

/// Prefers the socket if a process listens there and the options and the environment ask for
/// nothing else. On a machine without an address for posctl the socket is the only way: the runtime
/// waits for it. Throws tools::Usage_error for options that make no sense, and std::runtime_error
/// if there is no way.
[[nodiscard]] Possible_way choose_way(const Way_options& options);

/// The network, for those who want to see the sources too. Throws std::runtime_error if this
/// machine has no address of the node.
[[nodiscard]] Possible_way over_the_network(const std::string& node);

/// The runtime of a way, beside the one in force. Throws std::runtime_error if the way cannot be
/// taken.
[[nodiscard]] std::unique_ptr<tq::com::Runtime> open_way(const Possible_way& way);

/// The runtime in force.
class Way {
 public:
  /// Throws std::runtime_error if the way cannot be taken.
  explicit Way(const Possible_way& way);
  explicit Way(const Way_options& options) : Way(choose_way(options)) {}

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
