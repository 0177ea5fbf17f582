/// The provided side of a service: offering, events, fields and methods.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "ara/com/types.h"
#include "ara/core/future.h"
#include "ara/core/instance_specifier.h"
#include "mw/com/cpp_binding/log.h"
#include "mw/com/cpp_binding/serialization.h"
#include "mw/com/cpp_binding/service.h"
#include "mw/com/cpp_binding/trace.h"
#include "tq/com/runtime.h"

namespace mw::com::cpp_binding::skeleton {

/// Data shared by all parts of one skeleton.
struct Skeleton_core {
  std::string_view service;
  std::string instance;
  std::unique_ptr<tq::com::Provider> provider;
  std::atomic<std::uint32_t> calls{0};  ///< numbers the requests in trace records

  [[nodiscard]] Trace_event event(Trace_id id, std::uint32_t element = 0) const {
    return {.id = id, .service = service, .instance = instance, .element = element};
  }
  [[gnu::cold, gnu::noinline]] void record_update(std::uint32_t element) const {
    trace(Trace_id::Event_update_tx, [&] { return event(Trace_id::Event_update_tx, element); });
  }
};

namespace detail {

/// An encoded output of a method.
struct Encoded {
  std::vector<std::byte> bytes;
};

template <class... Inputs>
void describe_inputs(const void* object, Trace_json& json) {
  std::apply(
      [&](const auto&... inputs) {
        unsigned position = 0;
        (Serialization<std::remove_cvref_t<decltype(inputs)>>::trace(inputs, json, ++position),
         ...);
      },
      *static_cast<const std::tuple<Inputs...>*>(object));
}

/// Decodes a request, calls `work` with its arguments, encodes the result.
template <class Output, class... Inputs, class Work>
tq::com::Response answer(Skeleton_core& core,
                         std::uint16_t id,
                         tq::com::Payload payload,
                         Work& work) {
  const auto call = core.calls.fetch_add(1, std::memory_order_relaxed) + 1;
  const auto event = [&](Trace_id trace_id) {
    auto made = core.event(trace_id, id);
    made.call = call;
    return made;
  };
  const auto respond = [&](tq::com::Response response) {
    if (response.code != tq::com::Return_code::ok) {
      trace(Trace_id::Method_call_request_err, [&] {
        auto made = event(Trace_id::Method_call_request_err);
        made.error = static_cast<std::uint32_t>(response.code);
        return made;
      });
    }
    trace(Trace_id::Method_call_response_tx, [&] {
      auto made = event(Trace_id::Method_call_response_tx);
      made.error = static_cast<std::uint32_t>(response.code);
      return made;
    });
    return response;
  };

  std::tuple<Inputs...> inputs;
  try {
    std::apply([&](auto&... input) { (Serialization<Inputs>::decode(payload, input), ...); },
               inputs);
  } catch (const std::exception& error) {
    log_malformed_payload(core.service, std::to_string(id), error.what());
    return respond({.code = tq::com::Return_code::malformed_message, .payload = {}});
  }
  trace(Trace_id::Method_call_request_process, [&] {
    auto made = event(Trace_id::Method_call_request_process);
    made.payload = {&inputs, &describe_inputs<Inputs...>};
    return made;
  });
  try {
    tq::com::Response response;
    if constexpr (std::is_void_v<Output>) {
      std::apply(work, inputs).get();
    } else if constexpr (std::is_same_v<Output, Encoded>) {
      response.payload = std::apply(work, inputs).get().bytes;
    } else {
      const Output output = std::apply(work, inputs).get();
      Serialization<Output>::encode(output, response.payload);
    }
    return respond(std::move(response));
  } catch (const ara::com::ServiceError& error) {
    return respond({.code = error.Code(), .payload = {}});
  } catch (...) {
    log_handler_exception(Handler::method, core.service, std::to_string(id));
    trace(Trace_id::Method_call_request_exception,
          [&] { return event(Trace_id::Method_call_request_exception); });
    return respond({.code = tq::com::Return_code::not_ok, .payload = {}});
  }
}

}  // namespace detail

/// Binds a method of the interface to `work`, a callable that takes the inputs and returns
/// ara::core::Future<Output>. It runs on a worker, possibly in several calls at once. The worker
/// waits for the future. A ServiceError is answered with its code, any other exception with
/// E_NOT_OK.
template <class Output, class... Inputs, class Work>
void provide(Skeleton_core& core, const cpp_binding::Method<Output(Inputs...)>& method, Work work) {
  const auto id = core.provider->element(method.name).method.value_or(0);
  core.provider->set_method_handler(
      id, [&core, id, work = std::move(work)](tq::com::Payload payload) mutable {
        return detail::answer<Output, std::decay_t<Inputs>...>(core, id, payload, work);
      });
}

/// An event of a skeleton. Any thread may call Send.
template <class Value>
class Event {
 public:
  Event(Skeleton_core& core, std::string_view name)
      : core_{core}, id_{core.provider->element(name).notifier.value_or(0)} {}
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  void Send(const Value& value) {
    thread_local std::vector<std::byte> scratch;
    const auto payload = Serialization<Value>::encode_into(value, scratch);
    if (may_trace(trace_level(Trace_id::Event_update_tx))) core_.record_update(id_);
    core_.provider->notify(id_, payload);
  }

 private:
  Skeleton_core& core_;
  const std::uint16_t id_;
};

/// A field of a skeleton. Get is answered with the value notified last, unless a handler is
/// registered. Set is refused unless a handler is registered. Register handlers before the service
/// is offered.
template <class Value>
class Field {
 public:
  using GetHandler = std::function<ara::core::Future<Value>()>;
  using SetHandler = std::function<ara::core::Future<Value>(const Value&)>;

  Field(Skeleton_core& core, std::string_view name)
      : core_{core}, ids_{core.provider->element(name)}, notifier_{ids_.notifier.value_or(0)} {
    // The runtime would answer as well, but without trace records and the log line for a Get before
    // the first Update.
    if (ids_.getter) answer_get_with<detail::Encoded>([this] { return latest(); });
  }
  Field(const Field&) = delete;
  Field& operator=(const Field&) = delete;

  /// The provider keeps the value for Get and for new subscribers, and notifies the present
  /// subscribers. If two threads update at the same time, either value may be the later one; Get
  /// and subscribers see the same order.
  void Update(const Value& value) {
    // Kept per thread so that an update costs no allocation.
    thread_local std::vector<std::byte> scratch;
    const auto payload = Serialization<Value>::encode_into(value, scratch);
    if (may_trace(trace_level(Trace_id::Event_update_tx))) core_.record_update(notifier_);
    core_.provider->notify(notifier_, payload);
  }
  void RegisterGetHandler(GetHandler handler) {
    if (ids_.getter) answer_get_with<Value>(std::move(handler));
  }
  /// The value returned by the handler becomes the field's value.
  void RegisterSetHandler(SetHandler handler) {
    if (!ids_.setter) return;
    set_ = [this, handler = std::move(handler)](const Value& wanted) {
      ara::core::Promise<Value> promise;
      Value taken = handler(wanted).get();
      Update(taken);
      promise.set_value(std::move(taken));
      return promise.get_future();
    };
    core_.provider->set_method_handler(*ids_.setter, [this](tq::com::Payload payload) {
      return detail::answer<Value, Value>(core_, *ids_.setter, payload, set_);
    });
  }

 private:
  template <class Output, class Work>
  void answer_get_with(Work work) {
    core_.provider->set_method_handler(
        *ids_.getter, [this, work = std::move(work)](tq::com::Payload payload) {
          return detail::answer<Output>(core_, *ids_.getter, payload, work);
        });
  }
  ara::core::Future<detail::Encoded> latest() {
    auto value = core_.provider->field_value(notifier_);
    if (!value) {
      log_get_without_value(*ids_.getter);
      trace(Trace_id::Event_request_update_err,
            [&] { return core_.event(Trace_id::Event_request_update_err, notifier_); });
      throw ara::com::ServiceError{tq::com::Return_code::not_ok};
    }
    ara::core::Promise<detail::Encoded> promise;
    promise.set_value(detail::Encoded{std::move(*value)});
    return promise.get_future();
  }

  Skeleton_core& core_;
  const tq::com::Element_ids ids_;
  const std::uint16_t notifier_;
  SetHandler set_;
};

/// The classes that a skeleton has for the elements of an interface.
struct Side {
  template <class Value>
  using Field = skeleton::Field<Value>;
  template <class Value>
  using Event = skeleton::Event<Value>;
};

/// The skeleton's side of a field or an event of the interface, with the type and the name that the
/// interface gives it: `Element<Lamp::brightness> brightness{core()};` For methods see
/// provide().
template <const auto& description>
class Element : public std::remove_cvref_t<decltype(description)>::template Class_of_side<Side> {
  using Base = typename std::remove_cvref_t<decltype(description)>::template Class_of_side<Side>;

 public:
  explicit Element(Skeleton_core& core) : Base{core, description.name} {}
};

/// Base of every skeleton: one provided instance of `Service`. Its specifier names it in the
/// manifest.
template <class Service>
class Skeleton_impl {
 public:
  /// Throws std::runtime_error if the manifest has no such instance, or lacks an element of the
  /// service.
  explicit Skeleton_impl(const ara::core::InstanceSpecifier& specifier) {
    core_.service = Service::name;
    try {
      auto& runtime = tq::com::Runtime::instance();
      runtime.require(Service::name, elements_of<Service>);
      core_.provider = runtime.provide(Service::name, specifier.ToString());
    } catch (...) {
      trace(Trace_id::Service_instantiation_error, [&] {
        return Trace_event{.id = Trace_id::Service_instantiation_error,
                           .service = Service::name,
                           .instance = specifier.ToString()};
      });
      throw;
    }
    core_.instance = std::to_string(core_.provider->instance());
    trace(Trace_id::Service_skeleton_constructed, [&] {
      auto event = core_.event(Trace_id::Service_skeleton_constructed);
      event.version = Service::version.packed();
      event.short_name = short_name(Service::name);
      return event;
    });
  }
  Skeleton_impl(const Skeleton_impl&) = delete;
  Skeleton_impl& operator=(const Skeleton_impl&) = delete;

  void OfferService() {
    core_.provider->offer();
    if (!offered_.exchange(true)) record(Trace_id::Offer_service);
  }
  /// Returns at once. Calls in progress are still answered.
  void StopOfferService() {
    core_.provider->stop_offer();
    record_end_of_offer();
  }

 protected:
  ~Skeleton_impl() = default;
  [[nodiscard]] Skeleton_core& core() { return core_; }
  /// For the destructor of a class that overrides methods: withdraws the offer; afterwards no call
  /// reaches the object. Events may still be sent.
  void disconnect() {
    core_.provider->close();
    record_end_of_offer();
  }

 private:
  void record(Trace_id id) const {
    trace(id, [&] { return core_.event(id); });
  }
  /// Writes one trace record for each record of OfferService().
  void record_end_of_offer() {
    if (offered_.exchange(false)) record(Trace_id::Stop_offer_service);
  }

  Skeleton_core core_;
  std::atomic<bool> offered_{false};
};

}  // namespace mw::com::cpp_binding::skeleton
