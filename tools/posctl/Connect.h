/// Finding one instance of a service and calling it, with a bound on the time.
#pragma once

#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "mw/com/cpp_binding/proxy.h"

namespace posctl {

using Deadline = std::chrono::steady_clock::time_point;

[[nodiscard]] inline Deadline deadline_in(double seconds) {
  return std::chrono::steady_clock::now() +
         std::chrono::duration_cast<std::chrono::steady_clock::duration>(
             std::chrono::duration<double>(seconds));
}

/// A proxy of the first instance that is found, or of one. Throws std::runtime_error when none is
/// offered in time.
template <class Proxy>
[[nodiscard]] std::unique_ptr<Proxy> connect(std::string_view service,
                                             Deadline deadline,
                                             std::optional<std::uint16_t> instance = std::nullopt) {
  using Handle = typename Proxy::HandleType;
  // The search may still be delivering when the wait is over.
  auto found = std::make_shared<std::promise<Handle>>();
  auto future = found->get_future();
  const auto search = Proxy::StartFindService(
      [found, taken = false](const auto& handles, auto) mutable {
        if (taken || handles.empty()) return;
        taken = true;
        found->set_value(handles.front());
      },
      instance);
  const bool in_time = future.wait_until(deadline) == std::future_status::ready;
  Proxy::StopFindService(search);
  if (!in_time) {
    throw std::runtime_error("no instance of " + std::string(service) + " is offered");
  }
  return std::make_unique<Proxy>(future.get());
}

/// The result of a method call. Throws std::runtime_error when none comes in time, and
/// ara::com::ServiceError when the provider answered with an error.
template <class Future>
auto result_of(Future future, std::string_view method, Deadline deadline) {
  if (future.wait_until(deadline) != ara::core::future_status::ready) {
    throw std::runtime_error("no answer to " + std::string(method));
  }
  return future.get();
}

}  // namespace posctl
