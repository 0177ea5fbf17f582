/// The consumed side of a service: searching, connecting, events, fields and methods.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <future>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "ara/com/types.h"
#include "ara/core/future.h"
#include "mw/com/cpp_binding/log.h"
#include "mw/com/cpp_binding/sample_cache.h"
#include "mw/com/cpp_binding/serialization.h"
#include "mw/com/cpp_binding/service.h"
#include "mw/com/cpp_binding/trace.h"
#include "tq/com/runtime.h"

namespace mw::com::cpp_binding::proxy {

/// Data shared by all parts of one proxy.
struct Proxy_core {
  std::string_view service;
  std::string instance;
  std::unique_ptr<tq::com::Consumer> consumer;

  [[nodiscard]] Trace_event event(Trace_id id, std::uint32_t element = 0) const {
    return {.id = id, .service = service, .instance = instance, .element = element};
  }
};

/// An event of a proxy. One thread at a time calls Subscribe, SetReceiveHandler and Unsubscribe.
/// GetNewSamples is usually called by the receive handler, which runs on a thread of the
/// middleware, one call at a time.
template <class Value>
class Event {
 public:
  using SampleType = Value;  ///< the name that ara::com gives it

  Event(Proxy_core& core, std::string_view name)
      : core_{core}, name_{name}, id_{core.consumer->element(name).notifier.value_or(0)} {}
  ~Event() { Unsubscribe(); }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  /// `handler` is called after each new sample. Set it before Subscribe.
  void SetReceiveHandler(ara::com::EventReceiveHandler handler) { receive_ = std::move(handler); }
  void SetSubscriptionStateChangeHandler(ara::com::SubscriptionStateChangeHandler handler) {
    state_changed_ = std::move(handler);
  }

  /// `max_samples` limits the samples that wait or are held; beyond it a newer sample displaces the
  /// oldest waiting one. An active subscription ends first, as with Unsubscribe.
  void Subscribe(std::size_t max_samples) {
    Unsubscribe();
    cache_ = std::make_shared<Sample_cache<Value>>(std::max<std::size_t>(max_samples, 1));
    record(Trace_id::Field_subscribe);
    subscribed_ = true;
    state_ = ara::com::SubscriptionState::kSubscriptionPending;
    core_.consumer->subscribe(
        name_, [this](tq::com::Payload payload) { on_notification(payload); },
        [this](bool acknowledged) { on_state(acknowledged); });
  }
  /// Waits for a running receive handler, unless called from it. So the handlers of two events must
  /// not unsubscribe each other: each would wait for the other for ever.
  void Unsubscribe() {
    if (!subscribed_) return;
    subscribed_ = false;
    record(Trace_id::Field_unsubscribe);
    core_.consumer->unsubscribe(name_);
    state_ = ara::com::SubscriptionState::kNotSubscribed;
  }
  [[nodiscard]] ara::com::SubscriptionState GetSubscriptionState() const { return state_; }

  /// Calls `take(SamplePtr<Value>)` for each waiting sample, oldest first, at most `max` of them.
  /// Returns the number of calls.
  template <class Take>
  std::size_t GetNewSamples(Take&& take,
                            std::size_t max = std::numeric_limits<std::size_t>::max()) {
    std::size_t count = 0;
    while (cache_ != nullptr && count < max) {
      auto sample = cache_->pop();
      if (sample == nullptr) break;
      ++count;
      take(std::move(sample));
    }
    return count;
  }

 private:
  void on_notification(tq::com::Payload payload) {
    if (may_trace(per_message_level)) {
      on_traced_notification(payload);
    } else if (take(payload) && receive_) {
      handle([this] { receive_(); });
    }
  }
  [[gnu::cold, gnu::noinline]] void on_traced_notification(tq::com::Payload payload) {
    record(Trace_id::Event_update_rx);
    if (state_ != ara::com::SubscriptionState::kSubscribed) {
      // The notification overtook the acknowledgement, or the subscription just ended. The value is
      // good.
      record(Trace_id::Event_update_when_not_subscribed);
    }
    if (!take(payload)) return;
    record(Trace_id::Event_cache_update);
    if (!receive_) return;
    record(Trace_id::Event_receive_handler);
    handle([this] {
      constexpr auto id = Trace_id::Event_receive_handler_performance;
      trace_duration(id, receive_, [&] { return core_.event(id, id_); });
    });
  }
  /// Decodes into the cache. Returns false if that gives no new sample.
  bool take(tq::com::Payload payload) {
    auto& slot = cache_->acquire();
    try {
      Serialization<Value>::decode(payload, slot.value);
    } catch (const std::exception& error) {
      slot.trim();
      log_malformed_payload(core_.service, name_, error.what());
      record(Trace_id::Event_deserialize_exception);
      return false;
    }
    return cache_->push(slot);
  }
  template <class Call>
  void handle(Call call) {
    try {
      call();
    } catch (...) {
      record_exception(Handler::receive, Trace_id::Event_receive_handler_exception);
    }
  }
  [[gnu::cold, gnu::noinline]] void record(Trace_id id) const {
    trace(id, [&] { return core_.event(id, id_); });
  }
  [[gnu::cold, gnu::noinline]] void record_exception(Handler handler, Trace_id id) const {
    log_handler_exception(handler, core_.service, name_);
    record(id);
  }

  void on_state(bool acknowledged) {
    const auto state = acknowledged ? ara::com::SubscriptionState::kSubscribed
                                    : ara::com::SubscriptionState::kSubscriptionPending;
    if (state_.exchange(state) == state || !state_changed_) return;
    try {
      state_changed_(state);
    } catch (...) {
      record_exception(Handler::subscription_state, Trace_id::Event_state_handler_exception);
    }
  }

  Proxy_core& core_;
  const std::string_view name_;
  const std::uint16_t id_;
  ara::com::EventReceiveHandler receive_;
  ara::com::SubscriptionStateChangeHandler state_changed_;
  std::shared_ptr<Sample_cache<Value>> cache_;
  bool subscribed_ = false;
  /// Written by the runtime's state handler; the notification handler reads it on another thread.
  std::atomic<ara::com::SubscriptionState> state_{ara::com::SubscriptionState::kNotSubscribed};
};

template <class Signature>
class Method;

/// A method of a proxy. Any thread may call. The future is ready after the response. It holds an
/// ara::com::ServiceError after the provider's error or the runtime's time-out.
template <class Output, class... Inputs>
class Method<Output(Inputs...)> {
 public:
  Method(Proxy_core& core, std::string_view name)
      : Method{core, core.consumer->element(name).method} {}
  Method(Proxy_core& core, std::optional<std::uint16_t> id) : core_{core}, id_{id} {}

  ara::core::Future<Output> operator()(const Inputs&... inputs) {
    auto promise = std::make_shared<ara::core::Promise<Output>>();
    auto future = promise->get_future();
    if (!id_) {
      promise->set_exception(
          std::make_exception_ptr(ara::com::ServiceError{tq::com::Return_code::unknown_method}));
      return future;
    }
    std::vector<std::byte> arguments;
    (Serialization<Inputs>::encode(inputs, arguments), ...);
    core_.consumer->call(*id_, arguments,
                         [promise](tq::com::Return_code code, tq::com::Payload payload) {
                           try {
                             if (code != tq::com::Return_code::ok)
                               throw ara::com::ServiceError{code};
                             if constexpr (std::is_void_v<Output>) {
                               promise->set_value();
                             } else {
                               Output output{};
                               Serialization<Output>::decode(payload, output);
                               promise->set_value(std::move(output));
                             }
                           } catch (...) {
                             promise->set_exception(std::current_exception());
                           }
                         });
    return future;
  }

 private:
  Proxy_core& core_;
  const std::optional<std::uint16_t> id_;
};

/// A field of a proxy: an event with Get and Set.
template <class Value>
class Field : public Event<Value> {
 public:
  Field(Proxy_core& core, std::string_view name)
      : Event<Value>{core, name},
        Get{core, core.consumer->element(name).getter},
        Set{core, core.consumer->element(name).setter} {}

  Method<Value()> Get;
  /// Returns the value that the provider accepted.
  Method<Value(Value)> Set;
};

/// The classes that a proxy has for the elements of an interface.
struct Side {
  template <class Value>
  using Field = proxy::Field<Value>;
  template <class Value>
  using Event = proxy::Event<Value>;
  template <class Signature>
  using Method = proxy::Method<Signature>;
};

/// The proxy's side of an element of the interface, with the type and the name that the interface
/// gives it: `Element<Lamp::brightness> brightness{core()};`
template <const auto& description>
class Element : public std::remove_cvref_t<decltype(description)>::template Class_of_side<Side> {
  using Base = typename std::remove_cvref_t<decltype(description)>::template Class_of_side<Side>;

 public:
  explicit Element(Proxy_core& core) : Base{core, description.name} {}
};

/// Base of every proxy: the client of one found instance of `Service`.
template <class Service>
class Proxy_impl {
 public:
  /// An offered instance, returned by a search.
  class Handle_type {
   public:
    explicit Handle_type(tq::com::Found_instance found) : found_{std::move(found)} {}
    [[nodiscard]] ara::com::InstanceIdentifier GetInstanceId() const {
      return ara::com::InstanceIdentifier{found_.instance};
    }
    [[nodiscard]] const tq::com::Found_instance& found() const { return found_; }

   private:
    tq::com::Found_instance found_;
  };

  /// Searches for all instances, or for one instance, until StopFindService. The handler runs on a
  /// worker, one call at a time, at the start and on each change. Throws std::runtime_error if the
  /// manifest lacks the service or one of its elements.
  static ara::com::FindServiceHandle StartFindService(
      ara::com::FindServiceHandler<Handle_type> handler,
      std::optional<std::uint16_t> instance = std::nullopt) {
    auto& runtime = tq::com::Runtime::instance();
    runtime.require(Service::name, elements_of<Service>);
    const std::string text = instance ? std::to_string(*instance) : "any";
    const auto event = [text](Trace_id id, std::string_view of_instance) {
      return Trace_event{.id = id, .service = Service::name, .instance = of_instance};
    };
    trace(Trace_id::Find_service_start, [&] { return event(Trace_id::Find_service_start, text); });
    // The token exists only after the search began, but its first result may arrive earlier.
    auto handle = std::make_shared<std::promise<ara::com::FindServiceHandle>>();
    const auto known = handle->get_future().share();
    const auto token = runtime.start_find_service(
        Service::name, instance,
        [handler = std::move(handler), known, text,
         event](const std::vector<tq::com::Found_instance>& found) {
          trace(Trace_id::Find_service_result,
                [&] { return event(Trace_id::Find_service_result, text); });
          ara::com::ServiceHandleContainer<Handle_type> handles;
          handles.reserve(found.size());
          for (const auto& one : found) {
            handles.emplace_back(one);
            const auto id = std::to_string(one.instance);
            trace(Trace_id::Service_handle, [&] { return event(Trace_id::Service_handle, id); });
          }
          try {
            trace_duration(
                Trace_id::Find_service_handler_performance,
                [&] { handler(std::move(handles), known.get()); },
                [&] { return event(Trace_id::Find_service_handler_performance, text); });
          } catch (...) {
            log_handler_exception(Handler::find_service, Service::name, text);
            trace(Trace_id::Find_service_handler_exception,
                  [&] { return event(Trace_id::Find_service_handler_exception, text); });
          }
        });
    handle->set_value({token});
    return {token};
  }
  /// Returns when the handler no longer runs, unless the handler itself calls it.
  static void StopFindService(ara::com::FindServiceHandle handle) {
    trace(Trace_id::Find_service_stop, [] {
      return Trace_event{
          .id = Trace_id::Find_service_stop, .service = Service::name, .instance = {}};
    });
    tq::com::Runtime::instance().stop_find_service(handle.token);
  }

  explicit Proxy_impl(const Handle_type& handle)
      : core_{.service = Service::name,
              .instance = handle.GetInstanceId().ToString(),
              .consumer = tq::com::Runtime::instance().connect(handle.found())} {
    trace(Trace_id::Service_proxy_constructed, [&] {
      auto event = core_.event(Trace_id::Service_proxy_constructed);
      event.version = Service::version.packed();
      event.short_name = short_name(Service::name);
      return event;
    });
  }
  Proxy_impl(const Proxy_impl&) = delete;
  Proxy_impl& operator=(const Proxy_impl&) = delete;

 protected:
  ~Proxy_impl() = default;
  /// Elements of the derived proxy are members behind this base, so they are destroyed before the
  /// core.
  [[nodiscard]] Proxy_core& core() { return core_; }

 private:
  Proxy_core core_;
};

}  // namespace mw::com::cpp_binding::proxy
