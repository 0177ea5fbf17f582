/// One event or field notifier of a provided instance, on its way to the subscribers.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/someip/counters.h"
#include "platform/someip/message.h"
#include "platform/someip/sessions.h"
#include "platform/someip/stream.h"
#include "platform/someip/udp_port.h"

namespace someip {

/// Where the notifications of an event go. Immutable once shared: sending needs no lock.
struct Event_targets {
  std::vector<Socket_address> udp;
  std::vector<std::shared_ptr<Stream>> streams;
};

/// Thread-safe. Notifications leave in the order of the calls; no lock is held while they are sent.
class Event_channel {
 public:
  using Targets = std::shared_ptr<const Event_targets>;

  /// `udp` is where events over UDP are sent from; not used over TCP.
  Event_channel(std::uint16_t service,
                std::uint16_t event,
                std::uint8_t interface_version,
                bool field,
                Transport transport,
                std::shared_ptr<Udp_port> udp,
                Counters& counters);

  /// Told the event's id when somebody subscribes to a field that has no value yet. Set it before
  /// the offer.
  void on_value_missing(std::function<void(std::uint16_t)> tell) {
    value_missing_ = std::move(tell);
  }

  /// To all present targets. A field's value is kept.
  void notify(Bytes payload);
  /// A change of the targets: hold() them, acknowledge, send_initial() to those who shall get the
  /// present value of a field, release(). What is notified in between follows afterwards, so a new
  /// subscriber sees the acknowledgement, then the value of that moment, then every later one,
  /// once.
  void hold(Targets targets);
  void send_initial(Targets fresh);
  void release();
  [[nodiscard]] std::optional<std::vector<std::byte>> value() const;

 private:
  struct Job {
    std::vector<std::byte> payload;
    Targets targets;
    std::uint16_t session;
  };

  void send(Bytes payload, const Event_targets& targets, std::uint16_t session);
  void drain(std::unique_lock<std::mutex>& lock);
  /// On the thread of discovery: sends the queue, unless somebody does so already. A publisher that
  /// comes meanwhile takes over, for whoever sends goes on as long as others publish, and discovery
  /// has other work.
  void send_queue(std::unique_lock<std::mutex>& lock);
  void take_over(std::unique_lock<std::mutex>& lock);

  const Header header_;
  const bool field_;
  const Transport transport_;
  const std::shared_ptr<Udp_port> udp_;
  Counters& counters_;
  std::function<void(std::uint16_t)> value_missing_;  ///< fixed once the instance is offered

  mutable std::mutex mutex_;      ///< guards the members below; not held while sending
  bool sending_ = false;          ///< somebody sends and will take the queue along
  bool discovery_sends_ = false;  ///< it is the thread of discovery that sends
  bool publisher_waits_ = false;  ///< and will go on with the queue
  std::condition_variable discovery_done_;
  std::deque<Job> queue_;
  Targets targets_;
  bool held_ = false;
  std::deque<Job> held_queue_;                        ///< notified while held
  std::optional<std::vector<std::byte>> held_value_;  ///< as it was when the targets changed
  std::optional<std::vector<std::byte>> value_;
  Session_counter sessions_;
};

}  // namespace someip
