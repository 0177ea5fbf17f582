#include "platform/someip/node/node_client.h"

#include <stdexcept>
#include <string>
#include <utility>

namespace someip {

Node_client::Node_client(const Node_context& context, Discovery& discovery)
    : context_(context),
      discovery_(discovery),
      port_(open_port()),
      connections_(context, known_, tcp_events()),
      listeners_(context, *this),
      subscriptions_(context, discovery, known_, connections_, listeners_),
      searches_(context, discovery, known_, subscriptions_),
      calls_(context, known_, connections_, port_.get()),
      causes_(context) {}

std::shared_ptr<Udp_port> Node_client::open_port() {
  const Node_deployment& node = context_.node;
  if (context_.local != nullptr) return nullptr;
  auto socket = std::make_unique<Udp_socket>(context_.own);
  allow_missing_address(socket->descriptor());
  if (const auto error = socket->bind({context_.own, node.client_port})) {
    throw std::runtime_error(context_.deployment.source + ": nodes." + node.name +
                             ".clientPort: port " + std::to_string(node.client_port) + " of " +
                             context_.own.to_string() + " cannot be used: " + error.message());
  }
  return context_.udp_port(std::move(socket), *this);
}

Tcp_client::Events Node_client::tcp_events() {
  return {[this](const Endpoint& server) { discovery_.connected(server, Time::clock::now()); },
          [this](const Endpoint& server) {
            discovery_.connection_lost(server, Time::clock::now());
            calls_.connection_lost(server);
          },
          [this](Received message, const Endpoint& server, Tasks& tasks) {
            dispatch(std::move(message), server, Transport::tcp, tasks);
          }};
}

void Node_client::stop() {
  calls_.stop_time_outs();
  searches_.stop_results();
  listeners_.close();
  connections_.close();
}

void Node_client::instance_available(const Instance_key& key, const Remote_offer& offer) {
  const Time now = Time::clock::now();
  known_.add(key, offer, now);
  causes_.available(key, offer.origin, now);
  subscriptions_.instance_available(key, offer);
  searches_.instances_changed(key.service);
}

void Node_client::instance_gone(const Instance_key& key, const Loss& loss) {
  if (searches_.want(key.service)) causes_.lost(key, loss, Time::clock::now());
  subscriptions_.instance_gone(key);
  const auto gone = known_.remove(key);
  if (!gone) return;
  if (gone->endpoints.tcp) connections_.release_if_unused(*gone->endpoints.tcp);
  searches_.instances_changed(key.service);
}

void Node_client::misfit_offered(const Misfit& misfit, Time now) {
  if (searches_.want(misfit.key.service)) causes_.misfit_offered(misfit, now);
}

void Node_client::refused_by(const Origin& provider,
                             const Instance_key& key,
                             std::uint16_t event_group) {
  causes_.refused_by(provider, key, event_group);
}

void Node_client::list(mw::com::runtime::Peers& peers, Time now) const {
  searches_.list(peers.services, causes_, now);
  subscriptions_.list(peers.eventGroups, now);
}

bool Node_client::has_delivered(const Instance_key& key, const Address& provider) {
  return subscriptions_.delivery_rank(key, provider).has_value();
}

void Node_client::subscription_changed(const Instance_key& key,
                                       std::uint16_t event_group,
                                       bool active) {
  subscriptions_.state_changed(key, event_group, active);
}

void Node_client::listen_to(const Instance_key& key,
                            std::uint16_t event_group,
                            const Endpoint& group) {
  if (port_) listeners_.listen({key, event_group}, group);
}

bool Node_client::initial_value_missing(const Instance_key& key, std::uint16_t event_group) const {
  return subscriptions_.initial_value_missing(key, event_group);
}

void Node_client::received(Received message, const Endpoint& from, Tasks& tasks) {
  dispatch(std::move(message), from, Transport::udp, tasks);
}

void Node_client::received(const Local_frame& frame) {
  auto message = received_from(frame, context_.counters);
  if (!message) return;
  const Transport transport = frame.head.kind == Local_kind::tcp ? Transport::tcp : Transport::udp;
  Tasks tasks;
  dispatch(std::move(*message), {context_.local->server().address, frame.head.port}, transport,
           tasks);
  post_all(std::move(tasks), context_.workers);
}

void Node_client::dispatch(Received message,
                           const Endpoint& from,
                           Transport transport,
                           Tasks& tasks) {
  const Header& header = message.header;
  if (header.protocol != protocol_version) {
    context_.counters.dropped_wrong_version.add();
  } else if (header.is(Message_type::notification)) {
    subscriptions_.notification(std::move(message), from, transport, tasks);
  } else if (header.is(Message_type::response) || header.is(Message_type::error)) {
    calls_.response(std::move(message), from, transport, tasks);
  } else {
    context_.counters.dropped_wrong_type.add();
  }
}

}  // namespace someip
