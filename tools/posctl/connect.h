/// Finding one instance of a service and calling it, with a bound on the time.
#pragma once

#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>

#include "mw/com/cpp_binding/proxy.h"
#include "tools/command.h"

namespace posctl {

using Deadline = std::chrono::steady_clock::time_point;

[[nodiscard]] inline Deadline deadline_in(double seconds) {
  return std::chrono::steady_clock::now() +
         std::chrono::duration_cast<std::chrono::steady_clock::duration>(
             std::chrono::duration<double>(seconds));
}

/// The search for one instance of a service. Several at once take no longer than one.
template <class Proxy>
class Instance_search {
 public:
  /// For the first instance that is found, or for one.
  explicit Instance_search(std::string_view service,
                           std::optional<std::uint16_t> instance = std::nullopt)
      : service_{service}, future_{found_->get_future()} {
    search_ = Proxy::StartFindService(
        [found = found_, taken = false](const auto& handles, auto) mutable {
          if (taken || handles.empty()) return;
          taken = true;
          found->set_value(handles.front());
        },
        instance);
  }
  ~Instance_search() { Proxy::StopFindService(search_); }
  Instance_search(const Instance_search&) = delete;
  Instance_search& operator=(const Instance_search&) = delete;

  /// Once. Throws tools::No_answer when no instance is offered in time.
  [[nodiscard]] std::unique_ptr<Proxy> proxy(Deadline deadline) {
    if (future_.wait_until(deadline) != std::future_status::ready) {
      throw tools::No_answer("no instance of " + std::string(service_) + " is offered");
    }
    return std::make_unique<Proxy>(future_.get());
  }

 private:
  using Handle = typename Proxy::Handle_type;

  const std::string_view service_;
  /// Shared with the search's handler.
  const std::shared_ptr<std::promise<Handle>> found_ = std::make_shared<std::promise<Handle>>();
  std::future<Handle> future_;
  ara::com::FindServiceHandle search_{};
};

/// A proxy of the first instance that is found, or of one. Throws tools::No_answer when none is
/// offered in time.
template <class Proxy>
[[nodiscard]] std::unique_ptr<Proxy> connect(std::string_view service,
                                             Deadline deadline,
                                             std::optional<std::uint16_t> instance = std::nullopt) {
  return Instance_search<Proxy>(service, instance).proxy(deadline);
}

/// The result of a method call. Throws tools::No_answer when none comes in time or the provider
/// goes meanwhile, and ara::com::ServiceError when the provider answered with an error.
template <class Future>
auto result_of(Future future, std::string_view method, Deadline deadline) {
  if (future.wait_until(deadline) != ara::core::future_status::ready) {
    throw tools::No_answer("no answer to " + std::string(method));
  }
  try {
    return future.get();
  } catch (const ara::com::ServiceError& error) {
    using tq::com::Return_code;
    if (error.Code() != Return_code::timeout && error.Code() != Return_code::not_reachable) throw;
    throw tools::No_answer("no answer to " + std::string(method) + ": " + error.what());
  }
}

}  // namespace posctl
