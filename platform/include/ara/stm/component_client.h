/// Component states that state management asks for.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "ara/core/instance_specifier.h"

namespace ara::stm {

/// Called on a thread of the platform, one request at a time. It should end soon, but need not have
/// confirmed by then; a request that is never confirmed is answered with an error when a later one
/// has its number or needs its place. It must not throw.
using StateChangeHandler =
    std::function<void(const std::string& newState, std::uint32_t sequenceNumber)>;

class ComponentClient {
 public:
  /// Waits for a handler call under way (which may still confirm), so it must not run within one;
  /// requests that were not confirmed by then are answered with an error. A state management that
  /// does not answer delays it by a quarter of a second at most.
  virtual ~ComponentClient() = default;
  ComponentClient(const ComponentClient&) = delete;
  ComponentClient& operator=(const ComponentClient&) = delete;

  /// Answers the request `sequenceNumber`; `result` 0 is accepted. A confirmation without a request
  /// is published only: a state change that did not come from state management is known to it this
  /// way. Callable from any thread, also from within the handler; does not wait, does not throw.
  virtual void confirm(std::uint32_t sequenceNumber,
                       const std::string& newState,
                       std::uint32_t result) = 0;

 protected:
  ComponentClient() = default;
};

/// Registers the component `instance` at state management, beside the caller: this function does
/// not wait, and confirmations before the registration is complete have no effect. The handler may
/// be called before this function has returned: a handler that confirms has to wait until its
/// caller holds the client. Without a state management (no bus) one warning is logged and the
/// client works without effect. Throws std::invalid_argument for an empty handler.
[[nodiscard]] std::unique_ptr<ComponentClient> createComponentClient(
    const core::InstanceSpecifier& instance, StateChangeHandler handler);

}  // namespace ara::stm
