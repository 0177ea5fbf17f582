/// Types of the communication API that proxies and skeletons share.
#pragma once

#include <atomic>
#include <compare>
#include <cstddef>
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

/// A place in the cache of an event for one sample, filled again and again.
template <class Sample>
struct SampleSlot {
  /// So much room a list keeps for the next notification; above it, its memory is given back. Many
  /// times what any list here usually needs, and little beside what a single message may: an empty
  /// record of four bytes on the wire takes hundreds in memory.
  static constexpr std::size_t kMostKeptBytes = std::size_t{64} * 1024;

  Sample value{};
  std::atomic<bool> taken{false};  ///< waits, or the application holds it

  void release() noexcept {
    trim();
    // Release: the next who fills the slot does so after everything that was read from it.
    taken.store(false, std::memory_order_release);
  }
  void trim() noexcept {
    if constexpr (requires { value.capacity() * sizeof(typename Sample::value_type); }) {
      if (value.capacity() > kMostKeptBytes / sizeof(typename Sample::value_type)) give_back();
    }
  }

 private:
  [[gnu::cold, gnu::noinline]] void give_back() noexcept { Sample{}.swap(value); }
};

/// Gives the slot of a sample back to the cache that it belongs to.
template <class Sample>
struct SampleReturn {
  std::shared_ptr<void> cache;
  SampleSlot<Sample>* slot = nullptr;
  void operator()(const Sample*) const noexcept { slot->release(); }
};

/// A received sample, never shared. The slot it occupies returns to the event's cache when it is
/// destroyed, which may outlive the proxy.
template <class Sample>
using SamplePtr = std::unique_ptr<const Sample, SampleReturn<Sample>>;

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
