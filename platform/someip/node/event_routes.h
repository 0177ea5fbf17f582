/// The path of a received notification to its subscribers inside the process.
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
  /// Queues a notification for the handler. True: the caller has to call run(), on any thread.
  /// False: the thread that runs already takes it along, or the sink has ended.
  [[nodiscard]] virtual bool enqueue(Received notification) = 0;
  /// The state of the subscription has changed. Called on the control thread; must not wait.
  virtual void subscription_changed(bool active) = 0;

  /// True if a notification has arrived since the subscription became active.
  [[nodiscard]] bool value_seen() const { return value_seen_.load(std::memory_order_relaxed); }
  void set_value_seen(bool seen) { value_seen_.store(seen, std::memory_order_relaxed); }
  /// When the last notification arrived; its epoch without one.
  [[nodiscard]] Arrival_time last_arrival() const {
    return last_arrival_.load(std::memory_order_relaxed);
  }
  void set_last_arrival(Arrival_time arrival) {
    last_arrival_.store(arrival, std::memory_order_relaxed);
  }

 private:
  const std::uint8_t interface_version_;
  std::atomic<bool> value_seen_{false};
  std::atomic<Arrival_time> last_arrival_{Arrival_time{}};
};

/// Finds the sinks of an event. A route includes the endpoint that sends the event, so two
/// instances of a service never mix (someip_648). Thread-safe.
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
  /// Empty without a subscription.
  [[nodiscard]] Sinks find(const Key& key) const;

 private:
  struct Route {
    Key key;
    Sinks sinks;
  };
  mutable std::mutex mutex_;   ///< guards routes_
  std::vector<Route> routes_;  ///< one for each subscribed event: few
};

}  // namespace someip
