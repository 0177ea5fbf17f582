/// Component states, requested by state management.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "ara/core/instance_specifier.h"

namespace ara::stm {

/// Called on a thread of the platform, one request at a time. The handler should return soon, but
/// may confirm later. A request without a confirmation is answered with an error when a later
/// request has the same number or needs its place. The handler must not throw.
using StateChangeHandler =
    std::function<void(const std::string& newState, std::uint32_t sequence_number)>;

class ComponentClient {
 public:
  /// Waits for a handler call under way (which may still confirm), so the handler must not call it.
  /// Requests that are still unconfirmed are answered with an error. A state management that does
  /// not answer delays the destructor by at most a quarter of a second.
  virtual ~ComponentClient() = default;
  ComponentClient(const ComponentClient&) = delete;
  ComponentClient& operator=(const ComponentClient&) = delete;

  /// Answers the request `sequence_number`; `result` 0 means accepted. A confirmation without a
  /// request is only published: it informs state management of a state change that it did not
  /// request. Any thread may call, the handler too. Does not wait, does not throw.
  virtual void confirm(std::uint32_t sequence_number,
                       const std::string& newState,
                       std::uint32_t result) = 0;

 protected:
  ComponentClient() = default;
};

/// Registers the component `instance` at state management. The registration runs beside the caller:
/// this function does not wait, and confirmations before its end have no effect. The handler may
/// run before this function has returned: a handler that confirms has to wait until its caller
/// holds the client. Without a state management (no bus) one warning is logged and the client has
/// no effect. Throws std::invalid_argument for an empty handler.
[[nodiscard]] std::unique_ptr<ComponentClient> createComponentClient(
    const core::InstanceSpecifier& instance, StateChangeHandler handler);

}  // namespace ara::stm
