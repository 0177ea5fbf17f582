#include "platform/someip/node/node.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <chrono>
#include <future>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace someip {

namespace {

std::string key_of(const Node_deployment& node) {
  return "nodes." + node.name + (node.addresses.size() > 1 ? ".addresses" : ".address");
}

}  // namespace

std::unique_ptr<Discovery_channel> Node::take_address(const Deployment& deployment,
                                                      const Node_deployment& node) {
  std::string tried;
  for (const Address& address : node.addresses) {
    try {
      return std::make_unique<Discovery_channel>(
          control_.loop(), deployment.discovery, address, counters_, log_,
          [this](Bytes datagram, const Endpoint& from, bool multicast) {
            datagram_received(datagram, from, multicast);
          });
    } catch (const std::system_error& error) {
      const bool taken = error.code() == std::errc::address_in_use;
      tried += (tried.empty() ? "" : "; ") + address.to_string() +
               (taken ? " is taken by another process"
                      : " cannot be used: " + std::string(error.what()));
    }
  }
  throw std::runtime_error(deployment.source + ": " + key_of(node) + ": " +
                           (tried.empty() ? "no address given" : tried) +
                           " (each process needs an address of its own, with port " +
                           std::to_string(deployment.discovery.port) + " free)");
}

std::unique_ptr<Local_client> Node::make_local_client(const Deployment& deployment,
                                                      const Node_deployment& node,
                                                      Workers& workers) {
  // The other end gets the address beside the node's own.
  const Endpoint server{local_address(2, node.addresses.front().is_v4()), 1};
  Local_client::Events events{[this](bool up) {
                                if (!up) client_.calls().local_connection_lost();
                                discovery_.link_changed(up, Time::clock::now());
                              },
                              [this](const Local_frame& frame) {
                                const auto kind = frame.head.kind;
                                if (kind == Local_kind::udp || kind == Local_kind::tcp) {
                                  client_.received(frame);
                                } else {
                                  discovery_.received(frame.message, local_->server(),
                                                      kind == Local_kind::discovery_to_all,
                                                      Time::clock::now());
                                }
                              }};
  return std::make_unique<Local_client>(node.through, server, deployment.limits, workers, counters_,
                                        std::move(events));
}

Node::Node(const Deployment& deployment,
           const Node_deployment& node,
           Workers& workers,
           Log_sink log)
    : log_(std::move(log)),
      control_(workers),
      reassembler_(deployment),
      shaper_(deployment, control_.loop(), counters_),
      channel_(node.through.empty() ? take_address(deployment, node) : nullptr),
      local_(node.through.empty() ? nullptr : make_local_client(deployment, node, workers)),
      own_(channel_ ? channel_->own() : node.addresses.front()),
      context_{deployment, node, own_,      local_.get(), workers,
               control_,   log_, counters_, reassembler_, shaper_},
      client_(context_, discovery_),
      server_(context_, discovery_),
      discovery_(
          deployment,
          node,
          context_.own,
          counters_,
          log_,
          {server_, client_,
           [this](const std::vector<std::byte>& message, const Discovery_outbox::Destination& to) {
             send_discovery(message, to);
           },
           [this](Time next) { schedule(next); },
           [this](const Address& peer, Time last_contact) { peer_restarted(peer, last_contact); }}),
      link_(channel_ && node.watch_link
                ? std::make_unique<Link_watch>(
                      control_.loop(), context_.own, log_, [this](bool up) { link_changed(up); })
                : std::make_unique<Link_watch>(control_.loop(), context_.own)),
      timer_(control_) {
  client_.open();
  control_.post([this] { start(); });
}

Node::~Node() {
  stop();
}

void Node::send_discovery(const std::vector<std::byte>& message,
                          const Discovery_outbox::Destination& to) {
  if (local_) {
    local_->send_discovery(message, !to);
    return;
  }
  if (link_->up() && (!to || !is_local_address(to->address))) channel_->send(message, to);
  if (!to || is_local_address(to->address)) {
    server_.send_local_discovery(message, to ? std::optional(to->address) : std::nullopt);
  }
}

void Node::start() {
  if (local_) {
    discovery_.link_changed(false, Time::clock::now());
    local_->start();
    return;
  }
  warn_of_open_services();
  server_.start();
  channel_->start();
  link_->start();
  if (link_->up()) {
    channel_->link_changed(true);
  } else {
    discovery_.link_changed(false, Time::clock::now());
    log_.write(Log_level::warning, context_.own.to_string() +
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
  log_.write(Log_level::warning,
             context_.deployment.source +
                 ": no service has \"allowedPeers\": every address of the network may use "
                 "and provide every service");
}

void Node::stop() {
  std::call_once(stopped_once_, [this] {
    std::promise<void> done;
    boost::asio::post(control_.loop(), [this, &done] {
      discovery_.withdraw_all(Time::clock::now());
      control_.stop();
      if (channel_) channel_->stop();
      server_.ports().stop_watching();
      link_->stop();
      shaper_.stop();
      timer_.cancel();
      client_.stop();
      if (local_) local_->close();
      server_.close_connections();
      done.set_value();
    });
    done.get_future().wait();
    client_.close_port();
    server_.ports().close();
    client_.calls().cancel_all();
  });
}

mw::com::runtime::Peers Node::peers() {
  constexpr std::chrono::seconds patience{1};
  auto promise = std::make_shared<std::promise<mw::com::runtime::Peers>>();
  auto future = promise->get_future();
  control_.post([this, promise = std::move(promise)] {
    mw::com::runtime::Peers peers;
    const Time now = Time::clock::now();
    server_.list(peers, now);
    client_.list(peers, now);
    promise->set_value(std::move(peers));
  });
  // A stopped control thread neither runs the work nor drops it.
  if (future.wait_for(patience) != std::future_status::ready) {
    throw std::runtime_error("the thread of service discovery does not answer");
  }
  return future.get();
}

void Node::datagram_received(Bytes datagram, const Endpoint& from, bool multicast) {
  // A port that was closed before its owner subscribed again must not end the new subscription.
  if (!multicast) server_.ports().look_for_closed_ports();
  discovery_.received(datagram, from, multicast, Time::clock::now());
}

void Node::peer_restarted(const Address& peer, Time last_contact) {
  reassembler_.forget(peer);
  client_.peer_restarted(peer, last_contact);
  server_.ports().peer_restarted(peer, last_contact);
}

void Node::schedule(Time next) {
  if (control_.stopped() || next == Time::max()) return;
  timer_.run_at(next, [this] { discovery_.on_time(Time::clock::now()); });
}

void Node::link_changed(bool up) {
  if (up) {
    log_.write(Log_level::info, "the link of " + context_.own.to_string() + " is up");
    channel_->link_changed(true);
    server_.ports().link_up();
  } else {
    counters_.links_lost.add();
    log_.write(Log_level::warning, "the link of " + context_.own.to_string() + " is down");
    channel_->link_changed(false);
    shaper_.clear();
    server_.ports().link_down();
  }
  discovery_.link_changed(up, Time::clock::now());
}

}  // namespace someip
