/// The ports on which the node receives events by multicast.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>

#include "platform/someip/discovery/discovery_types.h"
#include "platform/someip/node/node_context.h"

namespace someip {

/// One port for each multicast endpoint, open while a subscription uses it. Lives on the control
/// thread.
class Multicast_listeners {
 public:
  /// An event group of an instance.
  using Group_key = std::pair<Instance_key, std::uint16_t>;

  Multicast_listeners(const Node_context& context, Message_receiver& receiver)
      : context_(context), receiver_(receiver) {}

  /// Receives the events of `key` at the multicast endpoint `group`, and no longer at that of an
  /// earlier call. Logs a warning if that is impossible.
  void listen(const Group_key& key, const Endpoint& group);
  void leave(const Group_key& key) { leave_all_but(std::nullopt, key); }
  void close();

 private:
  struct Listener {
    std::shared_ptr<Udp_port> port;
    std::set<Group_key> users;
  };
  void leave_all_but(const std::optional<Endpoint>& kept, const Group_key& key);
  /// Throws std::system_error.
  [[nodiscard]] std::shared_ptr<Udp_port> open(const Endpoint& group);

  const Node_context& context_;
  Message_receiver& receiver_;
  std::map<Endpoint, Listener> listeners_;
};

}  // namespace someip
