#include "platform/someip/node/node.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <future>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace someip {

namespace {

std::string key_of(const Node_deployment& node) {
  return "nodes." + node.name + (node.addresses.size() > 1 ? ".addresses" : ".address");
}

}  // namespace

Node::Node(const Deployment& deployment,
           const Node_deployment& node,
           Workers& workers,
           Log_sink log)
    : context_(deployment, node, workers, std::move(log)),
      channel_(take_address()),
      client_(context_),
      server_(context_),
      discovery_(deployment,
                 node,
                 context_.own,
                 context_.counters,
                 context_.log,
                 {server_, client_,
                  [this](const std::vector<std::byte>& message,
                         const Discovery_outbox::Destination& to) { channel_->send(message, to); },
                  [this](const Address& peer, Time last_contact) {
                    context_.reassembler.forget(peer);
                    client_.peer_restarted(peer, last_contact);
                    server_.peer_restarted(peer, last_contact);
                  }}),
      link_(node.watch_link
                ? std::make_unique<Link_watch>(workers.control(), context_.own, context_.log)
                : std::make_unique<Link_watch>(workers.control(), context_.own)),
      timer_(workers.control()) {
  context_.change = [this](const Node_context::Discovery_change& work) {
    discovery_.change(std::chrono::steady_clock::now(), work);
    schedule();
  };
  client_.open();
  context_.on_control([this] { start(); });
}

Node::~Node() {
  stop();
}

std::unique_ptr<Discovery_channel> Node::take_address() {
  const Deployment& deployment = context_.deployment;
  std::string tried;
  for (const Address& address : context_.node.addresses) {
    try {
      auto channel =
          std::make_unique<Discovery_channel>(context_.workers.control(), deployment.discovery,
                                              address, context_.counters, context_.log);
      context_.own = address;
      return channel;
    } catch (const std::system_error& error) {
      const bool taken = error.code() == std::errc::address_in_use;
      tried += (tried.empty() ? "" : "; ") + address.to_string() +
               (taken ? " is taken by another process"
                      : " cannot be used: " + std::string(error.what()));
    }
  }
  throw std::runtime_error(deployment.source + ": " + key_of(context_.node) + ": " +
                           (tried.empty() ? "no address given" : tried) +
                           " (each process needs an address of its own, with port " +
                           std::to_string(deployment.discovery.port) + " free)");
}

void Node::start() {
  warn_of_open_services();
  server_.start_watching();
  channel_->start(
      [this](Bytes datagram, const Endpoint& from, bool multicast) {
        // A port that was closed before its owner subscribed again must not end the new
        // subscription.
        if (!multicast) server_.look_for_closed_ports();
        discovery_.received(datagram, from, multicast, std::chrono::steady_clock::now());
        schedule();
      },
      link_->watching());
  link_->start([this](bool up) { link_changed(up); });
  if (link_->up()) {
    channel_->link_changed(true);
  } else {
    discovery_.link_changed(false, std::chrono::steady_clock::now());
    context_.log.write(Log_level::warning, context_.own.to_string() +
                                               " has no link yet: no interface that runs "
                                               "has this address");
  }
}

void Node::warn_of_open_services() {
  const auto& services = context_.deployment.services;
  const auto provided_here = [this](const Service_deployment& service) {
    return std::ranges::find(service.instances, context_.node.name, &Instance_deployment::node) !=
           service.instances.end();
  };
  const auto has_list = [](const Service_deployment& one) { return !one.allowed_peers.empty(); };
  if (std::ranges::none_of(services, provided_here) || std::ranges::any_of(services, has_list)) {
    return;
  }
  context_.log.write(Log_level::warning,
                     context_.deployment.source +
                         ": no service has \"allowedPeers\": every address of the network may use "
                         "and provide every service");
}

void Node::stop() {
  std::call_once(stopped_once_, [this] {
    std::promise<void> done;
    boost::asio::post(context_.workers.control(), [this, &done] {
      discovery_.change(std::chrono::steady_clock::now(),
                        [](Discovery_server& server, Discovery_client& client) {
                          client.unsubscribe_all();
                          server.stop_all();
                        });
      context_.stopped = true;
      channel_->stop();
      server_.stop_watching();
      link_->stop();
      context_.shaper.stop();
      timer_.cancel();
      client_.stop();
      server_.close_connections();
      done.set_value();
    });
    done.get_future().wait();
    client_.close_port();
    server_.close_ports();
    client_.end_calls();
  });
}

void Node::schedule() {
  const Time next = discovery_.next_deadline();
  if (context_.stopped || next == Time::max()) return;
  timer_.expires_at(next);
  timer_.async_wait([this](const boost::system::error_code& cancelled) {
    if (cancelled || context_.stopped) return;
    discovery_.on_time(std::chrono::steady_clock::now());
    schedule();
  });
}

void Node::link_changed(bool up) {
  if (up) {
    context_.log.write(Log_level::info, "the link of " + context_.own.to_string() + " is up");
    channel_->link_changed(true);
    server_.link_up();
  } else {
    context_.counters.links_lost.add();
    context_.log.write(Log_level::warning, "the link of " + context_.own.to_string() + " is down");
    channel_->link_changed(false);
    context_.shaper.clear();
    server_.link_down();
  }
  discovery_.link_changed(up, std::chrono::steady_clock::now());
  schedule();
}

}  // namespace someip
