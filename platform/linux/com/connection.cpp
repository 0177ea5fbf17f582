#include "platform/linux/com/connection.h"

#include <chrono>
#include <stdexcept>
#include <utility>

#include "platform/linux/com/element_ids.h"

namespace tq::com {

namespace {

/// A notification that reaches its handler this long after its arrival is counted.
constexpr std::chrono::milliseconds late{100};

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

Subscription::Subscription(std::uint8_t interface_version,
                           std::size_t max_queued,
                           Notification_handler handler,
                           Subscription_state_handler on_state,
                           someip::Workers& workers,
                           someip::Counters& counters)
    : Event_sink(interface_version),
      max_queued_(max_queued),
      handler_(std::move(handler)),
      on_state_(std::move(on_state)),
      workers_(workers),
      counters_(counters) {}

Subscription::~Subscription() {
  // Whoever had to run the strand held a reference: if it is not run yet, it never will be, because
  // the workers have stopped and dropped what they were asked for.
  close();
  if (!strand_.running_in_this_thread()) strand_.run();
}

bool Subscription::enqueue(someip::Received notification) {
  if (strand_.claim()) {
    first_ = std::move(notification);
    return true;
  }
  return add_waiting(notification.kept()) && strand_.enqueue([this] { take_waiting(); });
}

bool Subscription::add_waiting(someip::Received notification) {
  someip::Received displaced;  // goes after the lock
  const std::lock_guard lock(waiting_mutex_);
  waiting_.push_back(std::move(notification));
  if (waiting_.size() <= max_queued_) return true;
  displaced = std::move(waiting_.front());
  waiting_.pop_front();
  counters_.notifications_displaced.add();
  return false;
}

void Subscription::take_waiting() {
  someip::Received oldest;
  {
    const std::lock_guard lock(waiting_mutex_);
    if (waiting_.empty()) return;  // closed since
    oldest = std::move(waiting_.front());
    waiting_.pop_front();
  }
  deliver(oldest);
}

void Subscription::deliver(const someip::Received& notification) {
  if (someip::is_older_than(notification.arrival, late)) counters_.notifications_late.add();
  handler_(notification.payload);
}

void Subscription::close() {
  strand_.close();
  const std::lock_guard lock(waiting_mutex_);
  waiting_.clear();
}

void Subscription::run() {
  if (!first_.buffer.empty()) {
    strand_.run_claimed([this] {
      const someip::Received first = std::exchange(first_, {});
      deliver(first);
    });
  } else {
    strand_.run();
  }
}

void Subscription::subscription_changed(bool active) {
  if (!on_state_) return;
  // Peers decide how often it changes: a slow handler is told the newest state only.
  latest_active_ = active;
  if (state_pending_.exchange(true)) return;
  const bool free = strand_.enqueue([this] {
    state_pending_ = false;  // first: what changes from now on is told by another piece
    const bool latest = latest_active_;
    if (std::exchange(active_, latest) != latest) on_state_(latest);
  });
  if (free) workers_.post([self = shared_from_this()] { self->strand_.run(); });
}

Connection::Connection(std::shared_ptr<const Remote_instance> remote,
                       someip::Node& node,
                       someip::Workers& workers,
                       const someip::Limits& limits)
    : remote_(std::move(remote)),
      node_(node),
      workers_(workers),
      limits_(limits),
      gate_(std::make_shared<Gate>()) {}

Connection::~Connection() {
  decltype(subscriptions_) subscriptions;
  decltype(ended_inside_) ended_inside;
  decltype(calls_) calls;
  {
    const std::lock_guard lock(mutex_);
    ended_inside.swap(ended_inside_);
    subscriptions.swap(subscriptions_);
    calls.swap(calls_);
  }
  for (const auto& [name, subscription] : subscriptions)
    drop(subscription);
  for (const auto& ended : ended_inside) {
    if (const auto subscription = ended.lock()) subscription->close();
  }
  node_.client().calls().cancel(this);
  // Responses that are already on their way to their handler find the call ended.
  for (const auto& call : calls)
    end(call, Return_code::not_reachable, {});
  gate_->close();
}

Element_ids Connection::element(std::string_view name) const {
  return element_ids(remote_->service, name);
}

void Connection::drop(const std::shared_ptr<Subscription>& subscription) {
  node_.client().subscriptions().unsubscribe(subscription);
  if (subscription->running_here()) {
    const std::lock_guard lock(mutex_);
    std::erase_if(ended_inside_, [](const auto& ended) { return ended.expired(); });
    ended_inside_.push_back(subscription);
  }
  subscription->close();
}

void Connection::subscribe(std::string_view element,
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

  auto subscription = std::make_shared<Subscription>(
      service.major_version, limits_.queued_notifications, std::move(handler), std::move(on_state),
      workers_, node_.counters());
  // The new one first: the provider then keeps the subscription and sends the values again.
  node_.client().subscriptions().subscribe(selection, subscription);
  std::shared_ptr<Subscription> replaced;
  {
    const std::lock_guard lock(mutex_);
    replaced = std::exchange(subscriptions_[std::string(element)], std::move(subscription));
  }
  if (replaced) drop(replaced);
}

void Connection::unsubscribe(std::string_view element) {
  std::shared_ptr<Subscription> ended;
  {
    const std::lock_guard lock(mutex_);
    const auto found = subscriptions_.find(element);
    if (found == subscriptions_.end()) return;
    ended = std::move(found->second);
    subscriptions_.erase(found);
  }
  drop(ended);
}

void Connection::end(const std::shared_ptr<Call>& call, Return_code code, Payload payload) {
  if (!call->ended.exchange(true)) call->handler(code, payload);
}

void Connection::call(std::uint16_t method, Payload arguments, Response_handler handler) {
  auto call = std::make_shared<Call>();
  call->handler = std::move(handler);
  {
    const std::lock_guard lock(mutex_);
    calls_.insert(call);
  }
  node_.client().calls().call(
      remote_->key, method, transport_of(remote_->service, method), arguments, this,
      [this, gate = gate_, call](someip::Return_code code, someip::Bytes payload) {
        // Closed: the connection is gone, and has ended the call.
        const Gate::Pass pass(*gate);
        if (!pass) return;
        {
          const std::lock_guard lock(mutex_);
          calls_.erase(call);
        }
        end(call, static_cast<Return_code>(code), payload);
      });
}

void Connection::call_no_return(std::uint16_t method, Payload arguments) {
  node_.client().calls().call_no_return(remote_->key, method,
                                        transport_of(remote_->service, method), arguments, this);
}

}  // namespace tq::com
