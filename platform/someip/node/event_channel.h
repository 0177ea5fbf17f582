/// One event or field notifier of a provided instance, on its way to the subscribers.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/someip/base/counters.h"
#include "platform/someip/base/sessions.h"
#include "platform/someip/net/stream.h"
#include "platform/someip/net/udp_port.h"
#include "platform/someip/wire/message.h"

namespace someip {

/// Called with the id of a field's event when a client subscribes to it before it has a value.
using Value_missing_handler = std::function<void(std::uint16_t)>;

/// The receivers of the notifications of an event. Immutable once shared: sending needs no lock.
struct Event_targets {
  std::vector<Socket_address> udp;
  std::vector<std::shared_ptr<Stream>> udp_streams;  ///< of local clients, for events over UDP
  std::vector<std::shared_ptr<Stream>> streams;      ///< for events over TCP
};

/// Sends the notifications of one event to its subscribers. Thread-safe. Publishers and discovery
/// take turns, in the order in which they ask. Each thread sends its own notifications, without
/// holding a mutex, and waits for at most one turn of every thread before it. So nothing queues up
/// here, however fast several threads publish.
class Event_channel {
 public:
  using Targets = std::shared_ptr<const Event_targets>;

  /// `udp` sends the events that travel over UDP; not used over TCP.
  Event_channel(std::uint16_t service,
                std::uint16_t event,
                std::uint8_t interface_version,
                bool field,
                Transport transport,
                std::shared_ptr<Udp_port> udp,
                Counters& counters,
                Value_missing_handler value_missing);

  /// Sends to all present targets and keeps the value of a field. Passes on an exception of the
  /// sender, after the turn has ended.
  void notify(Bytes payload);

  // A change of the targets, on the control thread: hold(), acknowledge, send_initial() to the
  // targets that shall get the present value of a field, release(). The turn lasts from hold() to
  // release(), so a new subscriber sees the acknowledgement, then the value of that moment, then
  // every later one, once. Without a change, the turn begins with send_initial().
  void hold(Targets targets);
  /// Returns true if there was a value to send.
  bool send_initial(const Targets& fresh);
  void release();

  /// Number of calls of notify() that have sent.
  [[nodiscard]] std::uint64_t sent_to_all() const {
    return sent_to_all_.load(std::memory_order_relaxed);
  }

  /// The value that was notified last, for a field that has one.
  [[nodiscard]] std::optional<std::vector<std::byte>> value() const;

 private:
  class Turn;

  void begin_discovery_turn(std::unique_lock<std::mutex>& lock);
  void begin_turn(std::unique_lock<std::mutex>& lock);
  void end_turn();
  void send(Bytes payload, const Event_targets& targets);

  const Header header_;
  const bool field_;
  const Transport transport_;
  const std::shared_ptr<Udp_port> udp_;
  Counters& counters_;
  const Value_missing_handler value_missing_;

  mutable std::mutex mutex_;     ///< guards the three members below; not held while sending
  std::uint64_t last_turn_ = 0;  ///< that a thread has asked for
  std::uint64_t turn_ = 1;       ///< that is going on or comes next
  std::condition_variable turn_ended_;

  // Belong to the thread whose turn it is.
  Targets targets_;
  Session_counter sessions_;
  std::optional<std::vector<std::byte>> value_;  ///< written under mutex_ too: value() reads it
  std::atomic<std::uint64_t> sent_to_all_{0};    ///< read by any thread

  // Belong to the control thread.
  bool held_ = false;
  bool value_was_missing_ = false;
};

}  // namespace someip
