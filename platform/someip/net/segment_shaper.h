/// Spreads the segments of long messages over time, so that they do not leave as one burst
/// (someiptp_801).
#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "platform/someip/base/counters.h"
#include "platform/someip/base/deployment.h"
#include "platform/someip/base/endpoint.h"
#include "platform/someip/base/time.h"
#include "platform/someip/net/udp_sender.h"
#include "platform/someip/wire/message.h"

namespace someip {

/// Shared by the ports of a node. A message of more segments than a burst waits here, as one copy
/// for all its destinations. The waiting messages take turns, one burst for all of them in each
/// pause. Every other message leaves at once, unless an earlier message with the same ids to the
/// same destination still waits: it then follows that one. Thread-safe; sends on the control
/// thread.
class Segment_shaper {
 public:
  Segment_shaper(const Deployment& deployment,
                 boost::asio::io_context& control,
                 Counters& counters);
  ~Segment_shaper();
  Segment_shaper(const Segment_shaper&) = delete;
  Segment_shaper& operator=(const Segment_shaper&) = delete;

  /// False while messages wait: short messages must then also use send(), which keeps the order.
  [[nodiscard]] bool idle() const { return waiting_.load(std::memory_order_acquire) == 0; }
  /// Sends through `sender` now or later. Refuses and counts a message past the bound.
  void send(const std::shared_ptr<Udp_sender>& sender,
            const Header& header,
            Bytes payload,
            std::span<const Socket_address> to);
  /// Drops the waiting messages. Call it on the control thread.
  void clear();
  /// Does clear() and drops later messages. Call it on the control thread.
  void stop();

 private:
  class Message;
  struct Key {
    const Udp_sender* sender;
    std::uint16_t service, method;
    Endpoint to;
    bool operator<(const Key& other) const;
  };
  struct Waiting {
    std::shared_ptr<const Message> message;
    std::size_t sent = 0;  ///< bytes of the payload; used by the control thread only
  };
  struct Lane {
    std::shared_ptr<Udp_sender> sender;
    Socket_address to;
    std::deque<Waiting> messages;
  };
  using Lanes = std::map<Key, Lane>;

  /// Returns null if the bound is reached.
  [[nodiscard]] std::shared_ptr<const Message> copy(const Header& header,
                                                    Bytes payload,
                                                    std::size_t destinations);
  void run_at(Time next);
  void burst();

  const Segment_shaping& shaping_;
  const std::size_t max_bytes_;
  boost::asio::io_context& control_;
  Counters& counters_;
  std::atomic<std::size_t> bytes_{0};  ///< of the waiting messages; relaxed: it is only a bound
  /// Messages in lanes_. Released after the last segment of a message was sent, so that a thread
  /// that reads 0 overtakes no message.
  std::atomic<std::size_t> waiting_{0};
  boost::asio::steady_timer timer_;  ///< used by the control thread only
  std::mutex mutex_;                 ///< guards the members below; not held while sending
  Lanes lanes_;
  std::deque<Lanes::iterator> turns_;
  Time next_burst_{};
  bool scheduled_ = false;
  bool stopped_ = false;
};

}  // namespace someip
