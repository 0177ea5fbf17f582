/// The state of the running process: the counters of its communication, its peers, its resources,
/// the machine's clock.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <mutex>
#include <string>
#include <vector>

namespace mw::com::runtime {

/// One counter of the communication runtime, with its value since the start.
struct Counter {
  std::string name;
  std::uint64_t value = 0;
};

/// Every counter of this process: messages received, sent, dropped and refused. Any thread may
/// call. Throws std::logic_error while no Component_singleton exists.
[[nodiscard]] std::vector<Counter> counters();

struct Process_usage {
  std::uint64_t residentBytes = 0;  ///< memory in use, shared pages included
  std::uint32_t threads = 0;
  std::uint64_t uptimeMs = 0;  ///< since the start of the process, suspended time included
};

/// The present usage of the calling process. Throws std::runtime_error if the system does not give
/// it.
[[nodiscard]] Process_usage process_usage();

/// The quality of the machine's clock, as the kernel judges it.
struct Clock_state {
  bool synchronised = false;           ///< a daemon disciplines the clock
  std::uint64_t estimatedErrorUs = 0;  ///< means something while synchronised
  std::uint64_t maximumErrorUs = 0;    ///< same
  std::int32_t taiOffsetS = 0;         ///< TAI minus UTC; 0: not set in the kernel
  std::uint32_t steps = 0;             ///< sudden changes since the start of the process
};

/// Reads the machine's clock. One thread calls look(), any thread state().
class Clock_watch {
 public:
  Clock_watch() { look(); }
  /// Call it about once a second: two changes between two calls count as one step.
  void look();
  [[nodiscard]] Clock_state state() const;

 private:
  mutable std::mutex mutex_;  ///< guards state_
  Clock_state state_;
  /// Of the time since boot, which nothing sets. The thread of look() only; 0: not known yet.
  std::chrono::nanoseconds ahead_of_boot_{};
};

/// Of a time that has not come, and of a time to live without end.
inline constexpr std::uint64_t never = std::numeric_limits<std::uint64_t>::max();

/// An instance that this process offers.
struct Offered_instance {
  std::string service;
  std::uint16_t serviceId = 0;
  std::uint16_t instance = 0;
  std::uint8_t majorVersion = 0;
  std::uint32_t minorVersion = 0;
  std::string address;
  std::uint16_t udpPort = 0;  ///< 0: none
  std::uint16_t tcpPort = 0;  ///< 0: none
};

/// A client that has subscribed to an event group of this process, or whose last attempt was
/// refused.
struct Subscriber {
  std::uint16_t serviceId = 0;
  std::uint16_t instance = 0;
  std::uint16_t eventGroup = 0;
  std::string address;
  std::uint16_t udpPort = 0;    ///< 0: none
  std::uint16_t tcpPort = 0;    ///< 0: none
  bool subscribed = false;      ///< false: refused
  std::uint64_t sinceMs = 0;    ///< ago: acknowledged or refused for the first time
  std::uint64_t ttlLeftMs = 0;  ///< of the subscription; never: it does not end
  std::uint64_t sent = 0;       ///< notifications
  std::uint64_t refused = 0;    ///< attempts
  std::string cause;            ///< of the last refusal
};

/// A service that this process looks for.
struct Consumed_service {
  std::string service;
  std::uint16_t serviceId = 0;
  std::uint16_t instance = 0;  ///< the found one; without one, the wanted one (0xFFFF: any)
  std::uint8_t majorVersion = 0;
  bool found = false;
  std::string address;
  std::uint16_t udpPort = 0;    ///< 0: none
  std::uint16_t tcpPort = 0;    ///< 0: none
  std::uint64_t sinceMs = 0;    ///< ago: found, lost or searched for
  std::uint64_t ttlLeftMs = 0;  ///< of the offer; never: it does not end
  std::string cause;            ///< why it is not found, or cannot be used completely
};

/// An event group of a found instance to which this process subscribes.
struct Consumed_event_group {
  std::uint16_t serviceId = 0;
  std::uint16_t instance = 0;
  std::uint16_t eventGroup = 0;
  bool connected = false;   ///< over TCP: the connection stands; over UDP: the instance is offered
  bool subscribed = false;  ///< acknowledged
  std::uint64_t sinceMs = 0;             ///< ago: the last change of `subscribed`
  std::uint64_t lastNotificationMs = 0;  ///< ago; never: none since the subscription
  std::string cause;                     ///< why no data comes
};

/// The subscribers and providers of the process, at most `max_rows` rows of each kind.
struct Peers {
  static constexpr std::size_t max_rows = 256;

  std::vector<Offered_instance> offered;
  std::vector<Subscriber> subscribers;
  std::vector<Consumed_service> services;
  std::vector<Consumed_event_group> eventGroups;
};

/// Any worker may call: it waits for the thread of service discovery. Throws std::logic_error while
/// no Component_singleton exists.
[[nodiscard]] Peers peers();

}  // namespace mw::com::runtime
