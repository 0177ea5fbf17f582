/// Types of the communication API, shared by proxies and skeletons.
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

/// Number of an instance of a service. Its text is the decimal number.
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

/// Identifies a running search, so that the caller can stop it.
struct FindServiceHandle {
  tq::com::Find_token token;
};

template <class Handle>
using FindServiceHandler = std::function<void(ServiceHandleContainer<Handle>, FindServiceHandle)>;

using EventReceiveHandler = std::function<void()>;

enum class SubscriptionState : std::uint8_t { kSubscribed, kNotSubscribed, kSubscriptionPending };
using SubscriptionStateChangeHandler = std::function<void(SubscriptionState)>;

/// A slot in the cache of an event: holds one sample and is filled again and again.
template <class Sample>
struct SampleSlot {
  /// A list keeps at most this much memory for the next notification and gives the rest back. This
  /// is many times the usual need of any list here, and little beside the bound of one message. An
  /// empty record of four bytes on the wire takes hundreds in memory.
  static constexpr std::size_t most_kept_bytes = std::size_t{64} * 1024;

  Sample value{};
  std::atomic<bool> taken{false};  ///< the sample waits, or the application holds it

  void release() noexcept {
    trim();
    // Release: the next thread that fills the slot does so after every read from it.
    taken.store(false, std::memory_order_release);
  }
  void trim() noexcept {
    if constexpr (requires { value.capacity() * sizeof(typename Sample::value_type); }) {
      if (value.capacity() > most_kept_bytes / sizeof(typename Sample::value_type)) give_back();
    }
  }

 private:
  [[gnu::cold, gnu::noinline]] void give_back() noexcept { Sample{}.swap(value); }
};

/// Gives the slot of a sample back to its cache.
template <class Sample>
struct SampleReturn {
  std::shared_ptr<void> cache;
  SampleSlot<Sample>* slot = nullptr;
  void operator()(const Sample*) const noexcept { slot->release(); }
};

/// A received sample, never shared. Its destruction returns the slot to the event's cache. The
/// sample may outlive the proxy.
template <class Sample>
using SamplePtr = std::unique_ptr<const Sample, SampleReturn<Sample>>;

/// A failed method call: the provider's return code, or the runtime's when no response arrived.
class ServiceError : public std::runtime_error {
 public:
  explicit ServiceError(tq::com::Return_code code);
  [[nodiscard]] tq::com::Return_code Code() const { return code_; }

 private:
  tq::com::Return_code code_;
};

/// The code as text, such as "E_UNKNOWN_METHOD (0x03)".
[[nodiscard]] std::string ToString(tq::com::Return_code code);

}  // namespace ara::com
