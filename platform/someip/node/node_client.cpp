#include "platform/someip/node/node_client.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

namespace someip {

namespace {
/// A result lists every instance. A peer that changes one of many again and again must not make the
/// node work through all of them each time: this pause per instance keeps that below some percent
/// of a processor.
constexpr std::chrono::microseconds pause_per_instance{10};
}  // namespace

/// A response on its way to the handler.
class Node_client::Answer final : public Task {
 public:
  Answer(Response_handler handler, Received message)
      : handler_(std::move(handler)), message_(std::move(message)) {}
  void run() override {
    const bool ok = message_.header.code == 0;
    handler_(static_cast<Return_code>(message_.header.code), ok ? message_.payload : Bytes{});
  }

 private:
  const Response_handler handler_;
  const Received message_;
};

Node_client::Node_client(const Node_context& context, Discovery& discovery)
    : context_(context),
      discovery_(discovery),
      counters_(context.counters),
      port_(open_port()),
      calls_(context.deployment.limits.pending_calls),
      tcp_client_(context.own,
                  context.deployment.limits,
                  context.workers,
                  context.counters,
                  context.log,
                  tcp_events()),
      call_timer_(context.control),
      search_timer_(context.control) {}

std::shared_ptr<Udp_port> Node_client::open_port() {
  const Node_deployment& node = context_.node;
  auto socket = std::make_unique<Udp_socket>(context_.own);
  socket->allow_missing_address();
  if (const auto error = socket->bind({context_.own, node.client_port})) {
    throw std::runtime_error(context_.deployment.source + ": nodes." + node.name +
                             ".clientPort: port " + std::to_string(node.client_port) + " of " +
                             context_.own.to_string() + " cannot be used: " + error.message());
  }
  return context_.udp_port(std::move(socket), *this);
}

Tcp_client::Events Node_client::tcp_events() {
  return {[this](const Endpoint& server) { discovery_.connected(server, Time::clock::now()); },
          [this](const Endpoint& server) { connection_lost(server); },
          [this](Received message, const Endpoint& server, Tasks& tasks) {
            dispatch(std::move(message), server, Transport::tcp, tasks);
          }};
}

void Node_client::stop() {
  call_timer_.cancel();
  search_timer_.cancel();
  for (const auto& [group, port] : multicast_ports_)
    port.first->close();
  tcp_client_.close();
}

void Node_client::start_search(const Service_deployment& service,
                               std::uint16_t instance,
                               std::shared_ptr<Search> search) {
  context_.control.post(
      [this, id = service.id, major = service.major_version, instance, search = std::move(search)] {
        searches_.push_back({id, instance, major, search});
        discovery_.start_search({id, instance, major}, Time::clock::now());
        tell({id, instance, major, search});
      });
}

void Node_client::stop_search(std::shared_ptr<Search> search) {
  context_.control.post([this, search = std::move(search)] {
    const auto found =
        std::ranges::find_if(searches_, [&](const auto& one) { return one.search == search; });
    if (found == searches_.end()) return;
    const Running_search ended = *found;
    searches_.erase(found);
    discovery_.stop_search({ended.service, ended.instance, ended.major_version},
                           Time::clock::now());
  });
}

void Node_client::tell(const Running_search& search) {
  std::map<std::size_t, std::uint16_t> delivered;  // by their rank
  std::vector<std::uint16_t> others;
  for (const Known_instance& known : known_) {
    if (known.key.service != search.service || known.key.major_version != search.major_version ||
        (search.instance != any_instance && search.instance != known.key.instance)) {
      continue;
    }
    if (has_delivered(known.key, known.offer.origin.sender)) {
      delivered.emplace(first_deliveries_.at(known.key).rank, known.key.instance);
    } else {
      others.push_back(known.key.instance);
    }
  }
  std::vector<std::uint16_t> found;
  found.reserve(delivered.size() + others.size());
  for (const auto& [rank, instance] : delivered)
    found.push_back(instance);
  found.insert(found.end(), others.begin(), others.end());
  search.search->found(found);
}

void Node_client::note_delivery(const Instance_key& key) {
  if (first_deliveries_.contains(key) ||
      first_deliveries_.size() >= context_.deployment.limits.remote_instances) {
    return;
  }
  const bool delivered = std::ranges::any_of(events_, [&](const Client_event& event) {
    return event.selection.instance == key && event.sink->value_seen();
  });
  const auto known = std::ranges::find(known_, key, &Known_instance::key);
  if (!delivered || known == known_.end()) return;
  first_deliveries_.emplace(key,
                            First_delivery{known->offer.origin.sender, first_deliveries_.size()});
}

bool Node_client::has_delivered(const Instance_key& key, const Address& provider) {
  note_delivery(key);
  const auto first = first_deliveries_.find(key);
  return first != first_deliveries_.end() && first->second.provider == provider;
}

void Node_client::tell_searches(std::uint16_t service) {
  bool changed = false;
  for (Running_search& search : searches_) {
    if (search.service == service) changed = search.changed = true;
  }
  if (!changed || std::exchange(searches_scheduled_, true)) return;
  search_timer_.run_at(
      searches_told_ + pause_per_instance * static_cast<std::int64_t>(known_.size()),
      [this] { tell_changed_searches(); });
}

void Node_client::tell_changed_searches() {
  searches_scheduled_ = false;
  searches_told_ = Time::clock::now();
  for (Running_search& search : searches_) {
    if (std::exchange(search.changed, false)) tell(search);
  }
}

void Node_client::instance_available(const Instance_key& key, const Remote_offer& offer) {
  {
    const std::lock_guard lock(known_mutex_);
    known_.push_back({key, offer});
  }
  for (Client_event& event : events_) {
    if (event.selection.instance == key) connect_route(event, offer);
  }
  tell_searches(key.service);
}

void Node_client::instance_gone(const Instance_key& key) {
  note_delivery(key);
  Instance_endpoints gone;
  {
    const std::lock_guard lock(known_mutex_);
    const auto known =
        std::ranges::find_if(known_, [&](const auto& one) { return one.key == key; });
    if (known == known_.end()) return;
    gone = known->offer.endpoints;
    known_.erase(known);
  }
  for (Client_event& event : events_) {
    if (event.selection.instance != key) continue;
    event.connection.reset();
    if (!event.route) continue;
    routes_.remove(*std::exchange(event.route, std::nullopt), event.sink.get());
  }
  if (gone.tcp) release_if_unused(*gone.tcp);
  tell_searches(key.service);
}

void Node_client::connect_route(Client_event& event, const Remote_offer& offer) {
  if (event.selection.group.tcp) event.connection = offer.endpoints.tcp;
  const auto& endpoint =
      event.selection.transport == Transport::udp ? offer.endpoints.udp : offer.endpoints.tcp;
  if (!endpoint) return;
  event.route = Event_routes::Key{event.selection.instance.service, event.selection.event,
                                  event.selection.transport, *endpoint};
  event.sink->set_value_seen(false);
  routes_.add(*event.route, event.sink);
}

void Node_client::subscribe(const Event_selection& selection, std::shared_ptr<Event_sink> sink) {
  context_.control.post([this, selection, sink = std::move(sink)] {
    Client_event& event = events_.emplace_back(Client_event{selection, sink, {}, {}});
    for (const Known_instance& known : known_) {
      if (known.key == selection.instance) connect_route(event, known.offer);
    }
    discovery_.subscribe(selection.instance, selection.event_group, selection.group,
                         Time::clock::now());
    // A further sink of an active group is notified at once.
    if (discovery_.active(selection.instance, selection.event_group)) {
      sink->subscription_changed(true);
    }
  });
}

void Node_client::unsubscribe(std::shared_ptr<Event_sink> sink) {
  context_.control.post([this, sink = std::move(sink)] {
    const auto found =
        std::ranges::find_if(events_, [&](const auto& one) { return one.sink == sink; });
    if (found == events_.end()) return;
    note_delivery(found->selection.instance);
    const Client_event ended = std::move(*found);
    events_.erase(found);
    if (ended.route) routes_.remove(*ended.route, sink.get());
    discovery_.unsubscribe(ended.selection.instance, ended.selection.event_group,
                           Time::clock::now());
    const bool still_wanted = std::ranges::any_of(events_, [&](const Client_event& event) {
      return event.selection.instance == ended.selection.instance &&
             event.selection.event_group == ended.selection.event_group;
    });
    if (!still_wanted) leave_multicast({ended.selection.instance, ended.selection.event_group});
    if (ended.connection) release_if_unused(*ended.connection);
  });
}

void Node_client::subscription_changed(const Instance_key& key,
                                       std::uint16_t event_group,
                                       bool active) {
  if (!active) note_delivery(key);
  for (Client_event& event : events_) {
    if (event.selection.instance != key || event.selection.event_group != event_group) continue;
    if (!active) event.sink->set_value_seen(false);
    event.sink->subscription_changed(active);
  }
  if (!active) leave_multicast({key, event_group});
}

bool Node_client::initial_value_missing(const Instance_key& key, std::uint16_t event_group) const {
  return std::ranges::any_of(events_, [&](const Client_event& event) {
    return event.selection.instance == key && event.selection.event_group == event_group &&
           event.selection.field && !event.sink->value_seen();
  });
}

void Node_client::listen_to(const Instance_key& key,
                            std::uint16_t event_group,
                            const Endpoint& group) {
  leave_multicast({key, event_group}, group);  // what an earlier acknowledgement named
  auto& [port, users] = multicast_ports_[group];
  users.insert({key, event_group});
  if (port) {
    // Membership goes with its interface; where it still stands, this changes nothing.
    static_cast<void>(port->socket().join(group.address, context_.own));
    return;
  }
  try {
    auto socket = std::make_unique<Udp_socket>(context_.own);
    socket->reuse_address();
    auto error = socket->bind(group);
    if (!error) error = socket->join(group.address, context_.own);
    if (error) throw std::system_error(error);
    port = context_.udp_port(std::move(socket), *this);
    port->open();
  } catch (const std::system_error& error) {
    multicast_ports_.erase(group);
    context_.log.limited(Log_level::warning, "group",
                         "cannot listen to " + to_string(group) + ": " + error.code().message());
  }
}

void Node_client::leave_multicast(const Group_key& key, const std::optional<Endpoint>& but) {
  for (auto at = multicast_ports_.begin(); at != multicast_ports_.end();) {
    auto& [port, users] = at->second;
    if (at->first != but) users.erase(key);
    if (!users.empty()) {
      ++at;
      continue;
    }
    port->close();
    at = multicast_ports_.erase(at);
  }
}

void Node_client::release_if_unused(const Endpoint& server) {
  const bool subscribed = std::ranges::any_of(
      events_, [&](const Client_event& event) { return event.connection == server; });
  if (subscribed) return;
  if (!offered_over_tcp(server)) {
    senders_.erase(server);
    tcp_client_.release(server);
  } else if (!senders_.contains(server)) {
    tcp_client_.finish(server);
  }
}

void Node_client::connection_lost(const Endpoint& server) {
  discovery_.connection_lost(server, Time::clock::now());
  // What was asked over it will not be answered (someip_326).
  time_out(calls_.take_if(
      [&](const auto& call) { return call.transport == Transport::tcp && call.server == server; }));
}

void Node_client::received(Received message, const Endpoint& from, Tasks& tasks) {
  dispatch(std::move(message), from, Transport::udp, tasks);
}

void Node_client::dispatch(Received message,
                           const Endpoint& from,
                           Transport transport,
                           Tasks& tasks) {
  const Header& header = message.header;
  if (header.protocol != protocol_version) {
    counters_.dropped_wrong_version.add();
    return;
  }
  if (header.is(Message_type::notification)) {
    notification(std::move(message), from, transport, tasks);
    return;
  }
  if (!header.is(Message_type::response) && !header.is(Message_type::error)) {
    counters_.dropped_wrong_type.add();
    return;
  }
  counters_.responses_received.add();
  if (header.is(Message_type::error) && header.code == 0) {
    counters_.dropped_wrong_type.add();  // an error without a reason (someip_683)
    return;
  }
  if (header.client != context_.node.client_id) {
    counters_.dropped_unexpected.add();
    return;
  }
  auto call = calls_.take(header, from, transport);
  if (!call) {
    counters_.dropped_unexpected.add();
    return;
  }
  tasks.push_back(std::make_shared<Answer>(std::move(call->handler), std::move(message)));
}

void Node_client::notification(Received message,
                               const Endpoint& from,
                               Transport transport,
                               Tasks& tasks) {
  const Header header = message.header;
  auto sinks = routes_.find({header.service, header.method, transport, from});
  if (sinks.empty() || header.code != 0) {
    counters_.dropped_unexpected.add();
    return;
  }
  const auto hand_to = [&](std::shared_ptr<Event_sink>& sink, Received notification) {
    if (header.interface_version != sink->interface_version()) {
      counters_.dropped_wrong_version.add();
      return;
    }
    counters_.notifications_received.add();
    sink->set_value_seen(true);
    if (sink->enqueue(std::move(notification))) tasks.push_back(std::move(sink));
  };
  for (std::size_t i = 0; i + 1 < sinks.size(); ++i)
    hand_to(sinks[i], message);
  hand_to(sinks.back(), std::move(message));
}

std::optional<Endpoint> Node_client::endpoint_of(const Instance_key& instance,
                                                 Transport transport) {
  const std::lock_guard lock(known_mutex_);
  const auto known =
      std::ranges::find_if(known_, [&](const Known_instance& one) { return one.key == instance; });
  if (known == known_.end()) return std::nullopt;
  const Instance_endpoints& endpoints = known->offer.endpoints;
  return transport == Transport::udp ? endpoints.udp : endpoints.tcp;
}

void Node_client::send_request(const Header& header,
                               Transport transport,
                               const Endpoint& to,
                               Bytes arguments,
                               const void* owner,
                               Time deadline) {
  counters_.requests_sent.add();
  if (transport == Transport::udp) {
    const Socket_address address(to);
    port_->send(header, arguments, std::span(&address, 1));
    return;
  }
  context_.control.post([this, header, to, owner, deadline,
                         copy = std::vector<std::byte>(arguments.begin(), arguments.end())] {
    // Gone meanwhile: nobody would ever release a connection that is opened now.
    if (!offered_over_tcp(to)) return;
    senders_[to].insert(owner);
    tcp_client_.send(to, header, copy, deadline);
  });
}

bool Node_client::offered_over_tcp(const Endpoint& server) const {
  return std::ranges::any_of(
      known_, [&](const Known_instance& known) { return known.offer.endpoints.tcp == server; });
}

void Node_client::call(const Instance_key& instance,
                       std::uint16_t method,
                       Transport transport,
                       Bytes arguments,
                       const void* owner,
                       Response_handler handler) {
  const auto server = endpoint_of(instance, transport);
  if (!server) {
    handler(Return_code::not_reachable, {});
    return;
  }
  const Time deadline = Time::clock::now() + context_.node.request_timeout;
  Pending_calls::Call call{
      instance.service,  method, instance.major_version, *server, transport, owner, deadline,
      std::move(handler)};
  const auto session = calls_.add(call);
  if (!session) {
    counters_.refused_calls.add();
    call.handler(Return_code::not_ok, {});
    return;
  }
  if (!calls_watched_.exchange(true)) context_.control.post([this] { schedule_calls(); });

  Header header;
  header.service = instance.service;
  header.method = method;
  header.client = context_.node.client_id;
  header.session = *session;
  header.interface_version = instance.major_version;
  header.type = static_cast<std::uint8_t>(Message_type::request);
  send_request(header, transport, *server, arguments, owner, deadline);
}

void Node_client::call_no_return(const Instance_key& instance,
                                 std::uint16_t method,
                                 Transport transport,
                                 Bytes arguments,
                                 const void* owner) {
  const auto server = endpoint_of(instance, transport);
  if (!server) return;
  Header header;
  header.service = instance.service;
  header.method = method;
  header.client = context_.node.client_id;
  header.session = fire_and_forget_session();
  header.interface_version = instance.major_version;
  header.type = static_cast<std::uint8_t>(Message_type::request_no_return);
  send_request(header, transport, *server, arguments, owner, Time::max());
}

std::uint16_t Node_client::fire_and_forget_session() {
  std::uint16_t session = 0;
  while (session == 0)
    session = ++fire_and_forget_sessions_;
  return session;
}

void Node_client::cancel_calls(const void* owner) {
  for (const auto& call : calls_.take_if([&](const auto& one) { return one.owner == owner; })) {
    call.handler(Return_code::not_reachable, {});
  }
  context_.control.post([this, owner] {
    for (auto at = senders_.begin(); at != senders_.end();) {
      auto& [server, owners] = *at++;
      if (owners.erase(owner) == 0 || !owners.empty()) continue;
      const Endpoint unused = server;
      senders_.erase(unused);
      release_if_unused(unused);
    }
  });
}

void Node_client::schedule_calls() {
  // First, so that a call added from now on asks for another look.
  calls_watched_ = false;
  const Time next = calls_.next_deadline();
  if (next == Time::max() || calls_watched_.exchange(true)) return;
  call_timer_.run_at(next, [this] {
    const Time now = Time::clock::now();
    time_out(calls_.take_if([&](const auto& call) { return call.deadline <= now; }));
    schedule_calls();
  });
}

void Node_client::time_out(std::vector<Pending_calls::Call> calls) {
  counters_.calls_timed_out.add(calls.size());
  for (auto& call : calls) {
    context_.workers.post(
        [handler = std::move(call.handler)] { handler(Return_code::timeout, {}); });
  }
}

void Node_client::end_calls() {
  for (const auto& call : calls_.take_if([](const auto&) { return true; }))
    call.handler(Return_code::not_reachable, {});
}

}  // namespace someip
