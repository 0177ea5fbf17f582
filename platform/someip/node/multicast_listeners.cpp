#include "platform/someip/node/multicast_listeners.h"

#include <system_error>

namespace someip {

void Multicast_listeners::listen(const Group_key& key, const Endpoint& group) {
  leave_all_but(group, key);
  Listener& listener = listeners_[group];
  listener.users.insert(key);
  if (listener.port) {
    // Membership goes with its interface; where it still stands, this changes nothing.
    static_cast<void>(listener.port->socket().join(group.address, context_.own));
    return;
  }
  try {
    listener.port = open(group);
  } catch (const std::system_error& error) {
    listeners_.erase(group);
    context_.log.limited(Log_level::warning, "group",
                         "cannot listen to " + to_string(group) + ": " + error.code().message());
  }
}

std::shared_ptr<Udp_port> Multicast_listeners::open(const Endpoint& group) {
  auto socket = std::make_unique<Udp_socket>(context_.own);
  socket->reuse_address();
  auto error = socket->bind(group);
  if (!error) error = socket->join(group.address, context_.own);
  if (error) throw std::system_error(error);
  auto port = context_.udp_port(std::move(socket), receiver_);
  port->open();
  return port;
}

void Multicast_listeners::leave_all_but(const std::optional<Endpoint>& kept, const Group_key& key) {
  for (auto at = listeners_.begin(); at != listeners_.end();) {
    auto& [port, users] = at->second;
    if (at->first != kept) users.erase(key);
    if (!users.empty()) {
      ++at;
      continue;
    }
    port->close();
    at = listeners_.erase(at);
  }
}

void Multicast_listeners::close() {
  for (const auto& [group, listener] : listeners_)
    listener.port->close();
}

}  // namespace someip
