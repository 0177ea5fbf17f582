#include "platform/someip/node/client_connections.h"

#include <utility>

namespace someip {

Client_connections::Client_connections(const Node_context& context,
                                       const Known_instances& known,
                                       Tcp_client::Events events)
    : known_(known),
      tcp_(context.own,
           context.deployment.limits,
           context.workers,
           context.counters,
           context.log,
           std::move(events)) {}

void Client_connections::remove_subscription(const Endpoint& server) {
  const auto found = subscriptions_.find(server);
  if (--found->second == 0) subscriptions_.erase(found);
}

void Client_connections::send(const Endpoint& server,
                              const Header& header,
                              Bytes payload,
                              const void* caller,
                              Time deadline) {
  if (!known_.offered_over_tcp(server)) return;
  callers_[server].insert(caller);
  tcp_.send(server, header, payload, deadline);
}

void Client_connections::remove_caller(const void* caller) {
  for (auto at = callers_.begin(); at != callers_.end();) {
    auto& [server, callers] = *at++;
    if (callers.erase(caller) == 0 || !callers.empty()) continue;
    const Endpoint unused = server;
    callers_.erase(unused);
    release_if_unused(unused);
  }
}

void Client_connections::release_if_unused(const Endpoint& server) {
  if (subscriptions_.contains(server)) return;
  if (!known_.offered_over_tcp(server)) {
    callers_.erase(server);
    tcp_.release(server);
  } else if (!callers_.contains(server)) {
    tcp_.finish(server);
  }
}

}  // namespace someip
