#include "platform/someip/node/calls.h"

#include <memory>
#include <span>
#include <utility>

namespace someip {

/// A response on its way to the handler.
class Calls::Answer final : public Task {
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

Calls::Calls(const Node_context& context,
             const Known_instances& known,
             Client_connections& connections,
             Udp_port* port)
    : context_(context),
      known_(known),
      connections_(connections),
      port_(port),
      pending_(context.deployment.limits.pending_calls),
      timer_(context.control) {}

void Calls::call(const Instance_key& instance,
                 std::uint16_t method,
                 Transport transport,
                 Bytes arguments,
                 const void* owner,
                 Response_handler handler) {
  const auto server = known_.endpoint_of(instance, transport);
  if (!server) {
    handler(Return_code::not_reachable, {});
    return;
  }
  const Time deadline = Time::clock::now() + context_.node.request_timeout;
  Pending_calls::Call call{
      instance.service,  method, instance.major_version, *server, transport, owner, deadline,
      std::move(handler)};
  const auto session = pending_.add(call);
  if (!session) {
    context_.counters.refused_calls.add();
    call.handler(Return_code::not_ok, {});
    return;
  }
  if (!watched_.exchange(true)) context_.control.post([this] { schedule(); });

  Header header;
  header.service = instance.service;
  header.method = method;
  header.client = context_.node.client_id;
  header.session = *session;
  header.interface_version = instance.major_version;
  header.type = static_cast<std::uint8_t>(Message_type::request);
  send(header, transport, *server, arguments, owner, deadline);
}

void Calls::call_no_return(const Instance_key& instance,
                           std::uint16_t method,
                           Transport transport,
                           Bytes arguments,
                           const void* owner) {
  const auto server = known_.endpoint_of(instance, transport);
  if (!server) return;
  Header header;
  header.service = instance.service;
  header.method = method;
  header.client = context_.node.client_id;
  header.session = fire_and_forget_session();
  header.interface_version = instance.major_version;
  header.type = static_cast<std::uint8_t>(Message_type::request_no_return);
  send(header, transport, *server, arguments, owner, Time::max());
}

std::uint16_t Calls::fire_and_forget_session() {
  std::uint16_t session = 0;
  while (session == 0)
    session = ++fire_and_forget_sessions_;
  return session;
}

void Calls::send(const Header& header,
                 Transport transport,
                 const Endpoint& to,
                 Bytes arguments,
                 const void* owner,
                 Time deadline) {
  context_.counters.requests_sent.add();
  if (transport == Transport::udp && context_.local == nullptr) {
    const Socket_address address(to);
    port_->send(header, arguments, std::span(&address, 1));
    return;
  }
  context_.control.post([this, header, transport, to, owner, deadline,
                         copy = std::vector<std::byte>(arguments.begin(), arguments.end())] {
    if (context_.local != nullptr) {
      context_.local->send(local_head(transport, to.port), header, copy);
      return;
    }
    connections_.send(to, header, copy, owner, deadline);
  });
}

void Calls::response(Received message, const Endpoint& from, Transport transport, Tasks& tasks) {
  Counters& counters = context_.counters;
  const Header& header = message.header;
  counters.responses_received.add();
  if (header.is(Message_type::error) && header.code == 0) {
    counters.dropped_wrong_type.add();  // an error without a reason (someip_683)
    return;
  }
  if (header.client != context_.node.client_id) {
    counters.dropped_unexpected.add();
    return;
  }
  auto call = pending_.take(header, from, transport);
  if (!call) {
    counters.dropped_unexpected.add();
    return;
  }
  tasks.push_back(std::make_shared<Answer>(std::move(call->handler), std::move(message)));
}

void Calls::cancel(const void* owner) {
  for (const auto& call : pending_.take_if([&](const auto& one) { return one.owner == owner; })) {
    call.handler(Return_code::not_reachable, {});
  }
  context_.control.post([this, owner] { connections_.remove_caller(owner); });
}

void Calls::cancel_all() {
  for (const auto& call : pending_.take_if([](const auto&) { return true; }))
    call.handler(Return_code::not_reachable, {});
}

void Calls::connection_lost(const Endpoint& server) {
  // No response will come for requests sent over it (someip_326).
  time_out(pending_.take_if(
      [&](const auto& call) { return call.transport == Transport::tcp && call.server == server; }));
}

void Calls::local_connection_lost() {
  time_out(pending_.take_if([](const auto&) { return true; }));
}

void Calls::schedule() {
  // First, so that a call added from now on asks for another look.
  watched_ = false;
  const Time next = pending_.next_deadline();
  if (next == Time::max() || watched_.exchange(true)) return;
  timer_.run_at(next, [this] {
    const Time now = Time::clock::now();
    time_out(pending_.take_if([&](const auto& call) { return call.deadline <= now; }));
    schedule();
  });
}

void Calls::time_out(std::vector<Pending_calls::Call> calls) {
  context_.counters.calls_timed_out.add(calls.size());
  for (auto& call : calls) {
    context_.workers.post(
        [handler = std::move(call.handler)] { handler(Return_code::timeout, {}); });
  }
}

}  // namespace someip
