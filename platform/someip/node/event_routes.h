/// From a received notification to those who subscribed to it.
#pragma once

#include <atomic>
#include <boost/container/small_vector.hpp>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/someip/base/deployment.h"
#include "platform/someip/base/endpoint.h"
#include "platform/someip/base/task.h"
#include "platform/someip/net/received.h"

namespace someip {

/// A subscriber inside the process.
class Event_sink : public Task {
 public:
  explicit Event_sink(std::uint8_t interface_version) : interface_version_(interface_version) {}
  [[nodiscard]] std::uint8_t interface_version() const { return interface_version_; }
  /// Appends a notification to those that wait for the handler. True when run() has to be called,
  /// from any thread; false when the thread that runs already takes it along, or after the end.
  [[nodiscard]] virtual bool enqueue(Received notification) = 0;
  /// The state of the subscription has changed. Called on the control thread; must not wait.
  virtual void subscription_changed(bool active) = 0;

  /// Has a notification come since the subscription became active?
  [[nodiscard]] bool value_seen() const { return value_seen_.load(std::memory_order_relaxed); }
  void set_value_seen(bool seen) { value_seen_.store(seen, std::memory_order_relaxed); }

 private:
  const std::uint8_t interface_version_;
  std::atomic<bool> value_seen_{false};
};

/// Events are told apart by the endpoint that they come from, so two instances of a service never
/// mix (someip_648). Thread-safe.
class Event_routes {
 public:
  struct Key {
    std::uint16_t service = 0;
    std::uint16_t event = 0;
    Transport transport = Transport::udp;
    Endpoint from;  ///< the endpoint that the offer announced
    friend bool operator==(const Key&, const Key&) = default;
  };
  /// Nearly always one.
  using Sinks = boost::container::small_vector<std::shared_ptr<Event_sink>, 1>;

  void add(const Key& key, std::shared_ptr<Event_sink> sink);
  void remove(const Key& key, const Event_sink* sink);
  /// Empty when nobody wants it.
  [[nodiscard]] Sinks find(const Key& key) const;

 private:
  struct Route {
    Key key;
    Sinks sinks;
  };
  mutable std::mutex mutex_;   ///< guards routes_
  std::vector<Route> routes_;  ///< as many as the process has subscriptions: few
};

}  // namespace someip
