/// tq::com::Consumer over SOME/IP: its subscribed elements and its calls.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/com/gate.h"
#include "platform/linux/com/notification_queue.h"
#include "platform/linux/com/remote_instance.h"
#include "platform/someip/node/node.h"
#include "tq/com/runtime.h"

namespace tq::com {

class Someip_consumer final : public Consumer {
 public:
  Someip_consumer(std::shared_ptr<const Remote_instance> remote,
                  someip::Node& node,
                  someip::Workers& workers,
                  const someip::Limits& limits);
  ~Someip_consumer() override;
  Someip_consumer(const Someip_consumer&) = delete;
  Someip_consumer& operator=(const Someip_consumer&) = delete;

  [[nodiscard]] Element_ids element(std::string_view name) const override;
  void subscribe(std::string_view element,
                 Notification_handler handler,
                 Subscription_state_handler on_state) override;
  void unsubscribe(std::string_view element) override;
  void call(std::uint16_t method, Payload arguments, Response_handler handler) override;
  void call_no_return(std::uint16_t method, Payload arguments) override;

 private:
  /// A call ends once, by the first of these: the response, the time-out, or the end of the
  /// consumer.
  struct Call {
    Response_handler handler;
    std::atomic<bool> ended{false};
  };
  void end(const std::shared_ptr<Call>& call, Return_code code, Payload payload);
  void drop(const std::shared_ptr<Notification_queue>& queue);

  const std::shared_ptr<const Remote_instance> remote_;
  someip::Node& node_;
  someip::Workers& workers_;
  const someip::Limits& limits_;
  const std::shared_ptr<Gate> gate_;  ///< of response handlers; shared with calls that still travel

  std::mutex mutex_;  ///< guards the members below
  std::map<std::string, std::shared_ptr<Notification_queue>, std::less<>>
      subscribed_;  ///< by element
  /// Unsubscribed from within their handler, which the destructor still has to wait for. The thread
  /// that runs the handler keeps its queue alive until then.
  std::vector<std::weak_ptr<Notification_queue>> ended_inside_;
  std::set<std::shared_ptr<Call>> calls_;
};

}  // namespace tq::com
