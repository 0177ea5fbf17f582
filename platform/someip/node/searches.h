/// The node's searches for the instances of services.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "mw/com/statistics.h"
#include "platform/someip/discovery/discovery.h"
#include "platform/someip/node/causes.h"
#include "platform/someip/node/known_instances.h"
#include "platform/someip/node/node_context.h"
#include "platform/someip/node/subscriptions.h"

namespace someip {

/// Receives the results of one search.
class Search_sink {
 public:
  virtual ~Search_sink() = default;
  /// The offered instances, at the start and on each change. In front are those whose present
  /// provider was the first to deliver their events, in the order of these deliveries: a stranger's
  /// instance cannot displace them. The others follow in the order of their first offers. Called on
  /// the control thread; must not wait.
  virtual void found(const std::vector<std::uint16_t>& instances) = 0;
};

/// Starts and stops searches and delivers their results to the sinks. Each section of members names
/// the thread that calls it.
class Searches {
 public:
  Searches(const Node_context& context,
           Discovery& discovery,
           const Known_instances& known,
           Subscriptions& subscriptions);

  // Any thread

  void start(const Service_deployment& service,
             std::uint16_t instance,
             std::shared_ptr<Search_sink> sink);
  void stop(std::shared_ptr<Search_sink> sink);

  // The control thread

  /// An instance of the service has come or gone: the result of each of its searches follows.
  void instances_changed(std::uint16_t service);
  /// True if a search wants an instance of the service.
  [[nodiscard]] bool want(std::uint16_t service) const;
  /// Appends the wanted and the found instances of each search.
  void list(std::vector<mw::com::runtime::Consumed_service>& rows,
            const Causes& causes,
            Time now) const;
  /// No further result follows a change.
  void stop_results() { timer_.cancel(); }

 private:
  struct Running_search {
    Instance_key wanted;  ///< any_instance: all instances
    std::shared_ptr<Search_sink> sink;
    Time since{};
    bool changed = false;  ///< since its result was delivered last
  };

  void deliver(const Running_search& search);
  void deliver_changed();

  const Node_context& context_;
  Discovery& discovery_;
  const Known_instances& known_;
  Subscriptions& subscriptions_;

  // The control thread's own.
  Control_timer timer_;
  std::vector<Running_search> searches_;
  bool delivery_due_ = false;  ///< the timer runs
  Time delivered_{};           ///< the last time that changed results were delivered
};

}  // namespace someip
