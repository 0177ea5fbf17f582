/// The runtime's own side of a consumer: subscriptions with their strands, calls with their single
/// end.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "mw/com/Strand.h"
#include "platform/linux/com/gate.h"
#include "platform/someip/node/node.h"
#include "tq/com/runtime.h"

namespace tq::com {

class Remote_instance {
 public:
  Remote_instance(const someip::Service_deployment& deployed, std::uint16_t instance)
      : service(deployed), key{deployed.id, instance, deployed.major_version} {}
  const someip::Service_deployment& service;
  const someip::Instance_key key;
};

/// One element's notifications on their way to its handler. While the handler runs, the newest of
/// them wait, at most `max_queued`.
class Subscription final : public someip::Event_sink,
                           public std::enable_shared_from_this<Subscription> {
 public:
  Subscription(std::uint8_t interface_version,
               std::size_t max_queued,
               Notification_handler handler,
               Subscription_state_handler on_state,
               someip::Workers& workers,
               someip::Counters& counters);
  ~Subscription() override;
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

  [[nodiscard]] bool enqueue(someip::Received notification) override;
  void run() override;
  void subscription_changed(bool active) override;
  /// No handler runs any more when it returns (not waited for inside a handler).
  void close();
  [[nodiscard]] bool running_here() const { return strand_.running_in_this_thread(); }

 private:
  /// Displaces the oldest one when there is no room. True when it did not, so that the strand has
  /// to be asked for one more.
  [[nodiscard]] bool add_waiting(someip::Received notification);
  void take_waiting();
  void deliver(const someip::Received& notification);

  const std::size_t max_queued_;
  const Notification_handler handler_;
  const Subscription_state_handler on_state_;
  someip::Workers& workers_;
  someip::Counters& counters_;
  someip::Received first_;    ///< belongs to the thread that has claimed the strand
  std::mutex waiting_mutex_;  ///< guards waiting_
  /// The strand has been asked for each of them.
  std::deque<someip::Received> waiting_;
  bool active_ = false;  ///< as the handler was told last; touched on the strand only
  std::atomic<bool> latest_active_{false};
  std::atomic<bool> state_pending_{false};  ///< the strand has been asked to tell it
  mw::com::Strand strand_;
};

class Connection final : public Consumer {
 public:
  Connection(std::shared_ptr<const Remote_instance> remote,
             someip::Node& node,
             someip::Workers& workers,
             const someip::Limits& limits);
  ~Connection() override;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  [[nodiscard]] Element_ids element(std::string_view name) const override;
  void subscribe(std::string_view element,
                 Notification_handler handler,
                 Subscription_state_handler on_state) override;
  void unsubscribe(std::string_view element) override;
  void call(std::uint16_t method, Payload arguments, Response_handler handler) override;
  void call_no_return(std::uint16_t method, Payload arguments) override;

 private:
  /// A call ends once, by whoever comes first: the response, the time-out, or the end of the
  /// connection.
  struct Call {
    Response_handler handler;
    std::atomic<bool> ended{false};
  };
  void end(const std::shared_ptr<Call>& call, Return_code code, Payload payload);
  void drop(const std::shared_ptr<Subscription>& subscription);

  const std::shared_ptr<const Remote_instance> remote_;
  someip::Node& node_;
  someip::Workers& workers_;
  const someip::Limits& limits_;
  const std::shared_ptr<Gate> gate_;  ///< of response handlers; shared with calls that still travel

  std::mutex mutex_;  ///< guards the members below
  std::map<std::string, std::shared_ptr<Subscription>, std::less<>> subscriptions_;
  /// Ended from within their handler, which the end of the connection still has to wait for. The
  /// thread that runs the handler keeps its subscription alive until then.
  std::vector<std::weak_ptr<Subscription>> ended_inside_;
  std::set<std::shared_ptr<Call>> calls_;
};

}  // namespace tq::com
