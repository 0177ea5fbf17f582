/// Trace of the binding's work: one event for each thing that happened, in plain values. An
/// application that wants them installs a sink. Without a sink, or with the event's level off,
/// nothing is built.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

#include "ara/log/logger.h"
#include "mw/com/cpp_binding/serialization.h"

namespace mw::com::cpp_binding {

enum class Trace_id : std::uint8_t {
  // provided side
  Offer_service,
  Stop_offer_service,
  Service_skeleton_constructed,
  Service_instantiation_error,
  Method_call_request_process,
  Method_call_request_err,
  Method_call_request_exception,
  Method_call_response_tx,
  Event_update_tx,
  Event_request_update_err,
  // consumed side
  Service_proxy_constructed,
  Find_service_start,
  Find_service_stop,
  Find_service_result,
  Service_handle,
  Find_service_handler_performance,
  Find_service_handler_exception,
  Field_subscribe,
  Field_unsubscribe,
  Event_receive_handler,
  Event_receive_handler_performance,
  Event_receive_handler_exception,
  Event_state_handler_exception,
  Event_update_rx,
  Event_update_when_not_subscribed,
  Event_cache_update,
  Event_deserialize_exception,
};
inline constexpr std::size_t trace_id_count = 27;

/// A payload that makes its JSON form only when a record is really written.
struct Trace_payload {
  const void* object = nullptr;
  void (*describe)(const void* object, Trace_json& json) = nullptr;
};

/// Members without meaning for a record keep their default. The texts must live until write()
/// returns.
struct Trace_event {
  Trace_id id;
  std::string_view service;
  std::string_view instance;
  std::uint32_t element = 0;  ///< method or event id
  std::uint32_t call = 0;     ///< request of a method, counted per skeleton
  std::uint32_t error = 0;    ///< return code
  std::uint32_t version = 0;  ///< of the interface: major in the upper, minor in the lower 16 bits
  std::string_view short_name = {};  ///< of the interface
  std::chrono::microseconds duration{};
  Trace_payload payload = {};
};

/// The level of records of this kind: Info for the life of services, at most Debug for single
/// messages, Error for failures.
[[nodiscard]] constexpr ara::log::LogLevel trace_level(Trace_id id) {
  using enum Trace_id;
  switch (id) {
    case Method_call_request_exception:
      return ara::log::LogLevel::kFatal;
    case Service_instantiation_error:
    case Method_call_request_err:
    case Event_request_update_err:
    case Find_service_handler_exception:
    case Event_receive_handler_exception:
    case Event_state_handler_exception:
    case Event_deserialize_exception:
      return ara::log::LogLevel::kError;
    case Method_call_response_tx:
    case Find_service_handler_performance:
    case Event_update_when_not_subscribed:
      return ara::log::LogLevel::kDebug;
    case Method_call_request_process:
    case Event_update_tx:
    case Event_receive_handler:
    case Event_receive_handler_performance:
    case Event_update_rx:
    case Event_cache_update:
      return ara::log::LogLevel::kVerbose;
    default:
      return ara::log::LogLevel::kInfo;
  }
}

class Trace_sink {
 public:
  /// `context`: the log context of the records, if there is exactly one. The binding checks its
  /// current level before it calls the sink.
  explicit Trace_sink(const ara::log::Logger* context = nullptr) : context_{context} {}
  virtual ~Trace_sink() = default;
  Trace_sink(const Trace_sink&) = delete;
  Trace_sink& operator=(const Trace_sink&) = delete;

  [[nodiscard]] const ara::log::Logger* context() const noexcept { return context_; }
  [[nodiscard]] virtual bool is_enabled(Trace_id id) const noexcept = 0;
  virtual void write(const Trace_event& event) noexcept = 0;

 private:
  const ara::log::Logger* context_;
};

/// At a less verbose level the trace has no record of single messages, except for failures.
inline constexpr auto per_message_level = ara::log::LogLevel::kDebug;

namespace detail {
inline constexpr std::atomic<ara::log::LogLevel> nothing{ara::log::LogLevel::kOff};
inline constexpr std::atomic<ara::log::LogLevel> everything{ara::log::LogLevel::kVerbose};

inline std::atomic<Trace_sink*> trace_sink{nullptr};
/// The level up to which a call of the sink is useful. Never null, so that a disabled trace costs
/// two loads and one branch.
inline std::atomic<const std::atomic<ara::log::LogLevel>*> trace_gate{&nothing};

/// Out of line, with the data that the records need: a message passes by without it.
[[nodiscard, gnu::cold, gnu::noinline]] inline bool is_wanted(Trace_id id) {
  // Acquire: the thread that installed the sink built the data behind it.
  const auto* sink = trace_sink.load(std::memory_order_acquire);
  return sink != nullptr && sink->is_enabled(id);
}
template <class Make>
[[gnu::cold, gnu::noinline]] void write(Trace_id id, Make& make) {
  auto* sink = trace_sink.load(std::memory_order_acquire);
  if (sink != nullptr && sink->is_enabled(id)) sink->write(make());
}
}  // namespace detail

/// The sink must outlive every proxy and skeleton, or be removed with nullptr before.
inline void set_trace_sink(Trace_sink* sink) {
  const auto gate = [](const std::atomic<ara::log::LogLevel>& level) {
    detail::trace_gate.store(&level, std::memory_order_release);
  };
  if (sink == nullptr) gate(detail::nothing);
  detail::trace_sink.store(sink, std::memory_order_release);
  if (sink == nullptr) return;
  gate(sink->context() != nullptr ? sink->context()->LevelInForce() : detail::everything);
}

/// True if records of this level may be wanted: the only check on the path of a message.
[[nodiscard]] inline bool may_trace([[maybe_unused]] ara::log::LogLevel level) {
#if MW_COM_TRACE
  const auto* gate = detail::trace_gate.load(std::memory_order_acquire);
  return __builtin_expect(level <= gate->load(std::memory_order_relaxed), false);
#else
  return false;
#endif
}

/// True if an event of this kind would be written. Check it before measuring durations.
[[nodiscard]] inline bool is_traced(Trace_id id) {
  return may_trace(trace_level(id)) && detail::is_wanted(id);
}

/// Writes the event that `make` returns, if events of this kind are wanted.
template <class Make>
inline void trace(Trace_id id, Make&& make) {
  if (may_trace(trace_level(id))) detail::write(id, make);
}

/// Runs `work` and traces its duration under `id`. Reads the clock only if that is traced.
template <class Work, class Make>
void trace_duration(Trace_id id, Work&& work, Make&& make) {
  if (!is_traced(id)) {
    work();
    return;
  }
  const auto start = std::chrono::steady_clock::now();
  work();
  const auto elapsed = std::chrono::steady_clock::now() - start;
  trace(id, [&] {
    auto event = make();
    event.duration = std::chrono::duration_cast<std::chrono::microseconds>(elapsed);
    return event;
  });
}

}  // namespace mw::com::cpp_binding
