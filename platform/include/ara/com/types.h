/// Types of the communication API that proxies and skeletons share.
#pragma once

#include <atomic>
#include <compare>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tq/com/runtime.h"

namespace ara::com {

/// Number of one instance of a service; its text is the decimal number.
class InstanceIdentifier {
 public:
  explicit InstanceIdentifier(std::uint16_t id) : id_{id} {}
  [[nodiscard]] std::uint16_t Id() const { return id_; }
  [[nodiscard]] std::string ToString() const { return std::to_string(id_); }
  friend auto operator<=>(const InstanceIdentifier&, const InstanceIdentifier&) = default;

 private:
  std::uint16_t id_;
};

template <class Handle>
using ServiceHandleContainer = std::vector<Handle>;

/// Names a running search, to stop it.
struct FindServiceHandle {
  tq::com::Find_token token;
};

template <class Handle>
using FindServiceHandler = std::function<void(ServiceHandleContainer<Handle>, FindServiceHandle)>;

using EventReceiveHandler = std::function<void()>;

enum class SubscriptionState : std::uint8_t { kSubscribed, kNotSubscribed, kSubscriptionPending };
using SubscriptionStateChangeHandler = std::function<void(SubscriptionState)>;

/// Gives the slot of a sample back to the cache that it belongs to.
struct SampleReturn {
  std::shared_ptr<void> cache;
  std::atomic<bool>* taken = nullptr;
  void operator()(const void*) const noexcept {
    // Release: the next who fills the slot does so after everything that was read from it.
    taken->store(false, std::memory_order_release);
  }
};

/// A received sample, never shared. The slot it occupies returns to the event's cache when it is
/// destroyed, which may outlive the proxy.
template <class Sample>
using SamplePtr = std::unique_ptr<const Sample, SampleReturn>;

/// A method call that failed: the provider's return code, or the runtime's for one that never
/// arrived.
class ServiceError : public std::runtime_error {
 public:
  explicit ServiceError(tq::com::Return_code code);
  [[nodiscard]] tq::com::Return_code Code() const { return code_; }

 private:
  tq::com::Return_code code_;
};

/// Such as "E_UNKNOWN_METHOD (0x03)".
[[nodiscard]] std::string ToString(tq::com::Return_code code);

}  // namespace ara::com
