/// The instances that peers offer at present, with their endpoints.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <optional>

#include "platform/someip/base/deployment.h"
#include "platform/someip/base/endpoint.h"
#include "platform/someip/discovery/discovery_client.h"
#include "platform/someip/discovery/discovery_types.h"

namespace someip {

/// Keeps the offers in force, in the order in which they appeared. Lives on the control thread; any
/// thread may call endpoint_of().
class Known_instances {
 public:
  struct Instance {
    Instance_key key;
    Remote_offer offer;
    Time since;  ///< of the first offer
  };

  void add(const Instance_key& key, const Remote_offer& offer, Time now);
  /// Returns the offer that was in force, if any.
  std::optional<Remote_offer> remove(const Instance_key& key);

  /// In the order of their first offer.
  [[nodiscard]] const std::list<Instance>& all() const { return instances_; }
  /// Null when no peer offers the instance.
  [[nodiscard]] const Remote_offer* find(const Instance_key& key) const;
  [[nodiscard]] bool offered_over_tcp(const Endpoint& server) const;

  /// Where the instance receives requests over this transport.
  [[nodiscard]] std::optional<Endpoint> endpoint_of(const Instance_key& key,
                                                    Transport transport) const;

 private:
  mutable std::mutex mutex_;  ///< guards the members below against readers on other threads
  std::list<Instance> instances_;
  /// A peer controls the rate of changes, so the cost of finding and removing an instance must not
  /// grow with the number of instances.
  std::map<Instance_key, std::list<Instance>::iterator> places_;
};

}  // namespace someip
