#include "platform/linux/com/someip_consumer.h"

#include <stdexcept>
#include <utility>

#include "platform/linux/com/element_ids.h"

namespace tq::com {

namespace {

/// Over which transport a method, a getter or a setter travels.
someip::Transport transport_of(const someip::Service_deployment& service, std::uint16_t method) {
  for (const auto& one : service.methods) {
    if (one.id == method) return one.transport;
  }
  for (const auto& field : service.fields) {
    if (field.getter == method || field.setter == method) return field.transport;
  }
  return someip::Transport::udp;
}

}  // namespace

Someip_consumer::Someip_consumer(std::shared_ptr<const Remote_instance> remote,
                                 someip::Node& node,
                                 someip::Workers& workers,
                                 const someip::Limits& limits)
    : remote_(std::move(remote)),
      node_(node),
      workers_(workers),
      limits_(limits),
      gate_(std::make_shared<Gate>()) {}

Someip_consumer::~Someip_consumer() {
  decltype(subscribed_) subscribed;
  decltype(ended_inside_) ended_inside;
  decltype(calls_) calls;
  {
    const std::lock_guard lock(mutex_);
    ended_inside.swap(ended_inside_);
    subscribed.swap(subscribed_);
    calls.swap(calls_);
  }
  for (const auto& [element, queue] : subscribed)
    drop(queue);
  for (const auto& ended : ended_inside) {
    if (const auto queue = ended.lock()) queue->close();
  }
  node_.client().calls().cancel(this);
  // Responses that are already on their way to their handler find the call ended.
  for (const auto& call : calls)
    end(call, Return_code::not_reachable, {});
  gate_->close();
}

Element_ids Someip_consumer::element(std::string_view name) const {
  return element_ids(remote_->service, name);
}

void Someip_consumer::drop(const std::shared_ptr<Notification_queue>& queue) {
  node_.client().subscriptions().unsubscribe(queue);
  if (queue->running_here()) {
    const std::lock_guard lock(mutex_);
    std::erase_if(ended_inside_, [](const auto& ended) { return ended.expired(); });
    ended_inside_.push_back(queue);
  }
  queue->close();
}

void Someip_consumer::subscribe(std::string_view element,
                                Notification_handler handler,
                                Subscription_state_handler on_state) {
  const auto& service = remote_->service;
  someip::Event_selection selection;
  selection.instance = remote_->key;
  for (const auto& event : service.events) {
    if (event.name != element) continue;
    selection.event = event.id;
    selection.event_group = event.event_group;
    selection.transport = event.transport;
  }
  for (const auto& field : service.fields) {
    if (field.name != element || !field.notifier) continue;
    selection.event = *field.notifier;
    selection.event_group = field.event_group;
    selection.transport = field.transport;
    selection.field = true;
  }
  if (selection.event == 0) {
    throw std::runtime_error("services." + service.name + ": no event or notifier \"" +
                             std::string(element) + "\" in the deployment manifest");
  }
  selection.group = someip::event_groups(service, nullptr).at(selection.event_group);

  auto queue =
      std::make_shared<Notification_queue>(service.major_version, limits_, std::move(handler),
                                           std::move(on_state), workers_, node_.counters());
  // The new one first: the provider then keeps the subscription and sends the values again.
  node_.client().subscriptions().subscribe(selection, queue);
  std::shared_ptr<Notification_queue> replaced;
  {
    const std::lock_guard lock(mutex_);
    replaced = std::exchange(subscribed_[std::string(element)], std::move(queue));
  }
  if (replaced) drop(replaced);
}

void Someip_consumer::unsubscribe(std::string_view element) {
  std::shared_ptr<Notification_queue> ended;
  {
    const std::lock_guard lock(mutex_);
    const auto found = subscribed_.find(element);
    if (found == subscribed_.end()) return;
    ended = std::move(found->second);
    subscribed_.erase(found);
  }
  drop(ended);
}

void Someip_consumer::end(const std::shared_ptr<Call>& call, Return_code code, Payload payload) {
  if (!call->ended.exchange(true)) call->handler(code, payload);
}

void Someip_consumer::call(std::uint16_t method, Payload arguments, Response_handler handler) {
  auto call = std::make_shared<Call>();
  call->handler = std::move(handler);
  {
    const std::lock_guard lock(mutex_);
    calls_.insert(call);
  }
  node_.client().calls().call(remote_->key, method, transport_of(remote_->service, method),
                              arguments, this,
                              [this, gate = gate_, call](Return_code code, Payload payload) {
                                // Closed: the consumer is gone, and has ended the call.
                                const Gate::Pass pass(*gate);
                                if (!pass) return;
                                {
                                  const std::lock_guard lock(mutex_);
                                  calls_.erase(call);
                                }
                                end(call, code, payload);
                              });
}

void Someip_consumer::call_no_return(std::uint16_t method, Payload arguments) {
  node_.client().calls().call_no_return(remote_->key, method,
                                        transport_of(remote_->service, method), arguments, this);
}

}  // namespace tq::com
