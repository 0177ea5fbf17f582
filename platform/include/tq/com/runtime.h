/// The low-level interface of the communication middleware: bytes in, bytes out, elements by name.
/// The proxy and skeleton templates of mw/com/cpp_binding use it, platform/linux/com implements it
/// over SOME/IP. Applications use the templates, not this header.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "mw/com/statistics.h"
#include "tq/com/types.h"

namespace tq::com {

/// The endpoint of an offered instance. Only the runtime knows its content.
class Remote_instance;

/// An offered instance of a service, found by a search. Cheap to copy.
struct Found_instance {
  std::string service;
  std::uint16_t instance = 0;
  std::shared_ptr<const Remote_instance> where;
};

/// Ids of one element of a service interface, from the deployment manifest. An id that the element
/// does not have (a field without setter) is empty.
struct Element_ids {
  std::optional<std::uint16_t> method;    ///< of a method
  std::optional<std::uint16_t> getter;    ///< of a field
  std::optional<std::uint16_t> setter;    ///< of a field
  std::optional<std::uint16_t> notifier;  ///< of a field (notification) or an event
};

enum class Element_kind : std::uint8_t { method, event, field };

/// One element of a service interface, as described in the code.
struct Element {
  Element_kind kind;
  std::string_view name;
};

/// Called with the payload of one notification, one call at a time and in order of arrival. The
/// payload is valid only during the call.
using Notification_handler = std::function<void(Payload)>;

/// Called when the state of a subscription changes: true when it is acknowledged, false when it
/// ends.
using Subscription_state_handler = std::function<void(bool subscribed)>;

/// Called with every offered instance that matches a search, at the start and on each change, one
/// call at a time, on a worker thread. In front are those whose present provider was the first to
/// deliver their events, in the order of these deliveries: a stranger's instance cannot displace
/// them. The others follow in the order of their first offers.
using Find_handler = std::function<void(const std::vector<Found_instance>&)>;

enum class Find_token : std::uint64_t {};

/// One client of one instance. Its destructor unsubscribes and waits until no handler of it runs,
/// unless such a handler destroys it. Any thread may call all members.
///
/// A handler of one element or consumer may end another one, which waits for the other's handler.
/// Two handlers must not end each other: each would wait for the other for ever.
class Consumer {
 public:
  virtual ~Consumer() = default;

  [[nodiscard]] virtual Element_ids element(std::string_view name) const = 0;

  /// Requests the notifications of an event or field. The runtime subscribes to its event group
  /// and renews the subscription with every offer. It calls `handler` for each notification, the
  /// initial value of a field included. A second call for the same element replaces the handlers.
  virtual void subscribe(std::string_view element,
                         Notification_handler handler,
                         Subscription_state_handler on_state) = 0;
  /// Returns when no handler of this element runs (does not wait inside that handler).
  virtual void unsubscribe(std::string_view element) = 0;

  /// Sends a request. Every call ends in exactly one call of `handler`, at the latest after the
  /// time-out of the manifest ("requestTimeoutMs").
  virtual void call(std::uint16_t method, Payload arguments, Response_handler handler) = 0;
  virtual void call_no_return(std::uint16_t method, Payload arguments) = 0;
};

/// One provided instance. Any thread may call all members. The destructor closes it.
class Provider {
 public:
  virtual ~Provider() = default;

  [[nodiscard]] virtual std::uint16_t instance() const = 0;
  [[nodiscard]] virtual Element_ids element(std::string_view name) const = 0;

  /// Set handlers before offer(). A getter without a handler returns the value notified last.
  virtual void set_method_handler(std::uint16_t method, Method_handler handler) = 0;

  virtual void offer() = 0;
  virtual void stop_offer() = 0;
  /// Stops the offer for good and waits until no method handler runs. A notification that a handler
  /// still sends reaches no subscriber.
  virtual void close() = 0;

  /// Notifies the present subscribers of an event or a field, and keeps the value of a field for
  /// new subscribers.
  virtual void notify(std::uint16_t notifier, Payload value) = 0;
  /// The value of a field notified last; empty before its first notification.
  [[nodiscard]] virtual std::optional<std::vector<std::byte>> field_value(
      std::uint16_t notifier) const = 0;
};

/// The process's node on the network. mw::com::runtime::Component_singleton creates it.
class Runtime {
 public:
  virtual ~Runtime() = default;

  /// The process's runtime. Throws std::logic_error while no Component_singleton exists.
  static Runtime& instance();

  /// Throws std::runtime_error, which names the manifest, the key and the expected content, unless
  /// the service is deployed with every one of `elements`. A field needs a notifier.
  virtual void require(std::string_view service, std::span<const Element> elements) const = 0;

  /// `service` is the interface's full name in the manifest. Without `instance` every instance
  /// matches. Throws std::runtime_error, which names the manifest and the key, if the service is
  /// not deployed.
  [[nodiscard]] virtual Find_token start_find_service(std::string_view service,
                                                      std::optional<std::uint16_t> instance,
                                                      Find_handler handler) = 0;
  /// Returns when the handler no longer runs (does not wait inside that handler).
  virtual void stop_find_service(Find_token token) = 0;

  [[nodiscard]] virtual std::unique_ptr<Consumer> connect(const Found_instance& instance) = 0;

  /// `specifier` names the instance in the manifest. Throws std::runtime_error, which names the
  /// manifest and the key, if there is no such instance.
  [[nodiscard]] virtual std::unique_ptr<Provider> provide(std::string_view service,
                                                          std::string_view specifier) = 0;

  /// Messages received, sent, dropped and refused since the start, by name.
  [[nodiscard]] virtual std::vector<std::pair<std::string_view, std::uint64_t>> counters()
      const = 0;
  /// The present subscribers and providers. The control thread must not call it.
  [[nodiscard]] virtual mw::com::runtime::Peers peers() = 0;
};

}  // namespace tq::com
