/// A UDP endpoint of the node on which messages arrive: takes datagrams apart, puts segments
/// together, hands the messages on and runs what they leave behind.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/someip/counters.h"
#include "platform/someip/log.h"
#include "platform/someip/received.h"
#include "platform/someip/segment_shaper.h"
#include "platform/someip/segmentation.h"
#include "platform/someip/task.h"
#include "platform/someip/udp_socket.h"
#include "platform/someip/workers.h"

namespace someip {

/// Shared by the ports of a node: trains of segments are bounded over all of them.
class Shared_reassembler {
 public:
  explicit Shared_reassembler(const Limits& limits) : reassembler_(limits) {}

  /// True when `header` and `payload`, those of a segment, completed a message, now in `message`.
  [[nodiscard]] bool add(const Endpoint& peer,
                         const Header& header,
                         Bytes payload,
                         Counters& counters,
                         Reassembler::Message& message);
  void forget(const Address& peer);

 private:
  std::mutex mutex_;  ///< guards reassembler_
  Reassembler reassembler_;
};

class Udp_port final : public Readable, public std::enable_shared_from_this<Udp_port> {
 public:
  /// Who gets the messages of a port.
  class Receiver {
   public:
    virtual ~Receiver() = default;
    /// Called in the order of arrival, on one thread at a time. Must not wait: handlers go to
    /// `tasks`.
    virtual void received(Received message, const Endpoint& from, Udp_port& port, Tasks& tasks) = 0;
  };

  /// `socket` is bound. Messages come once open() has been called.
  Udp_port(std::unique_ptr<Udp_socket> socket,
           Receiver& receiver,
           Workers& workers,
           Shared_reassembler& reassembler,
           Segment_shaper& shaper,
           Counters& counters,
           Log& log);

  void open();
  /// Same, with a thread that waits in the socket itself and runs the handlers: it is awake sooner
  /// than one that waits for many descriptors. What arrives while it is in a handler is for the
  /// workers; at once when datagrams come now and then, after one or two milliseconds when they
  /// follow each other closely.
  void open_with_thread();
  /// No message is handed on after it returns.
  void close();

  [[nodiscard]] const Endpoint& local() const { return local_; }
  [[nodiscard]] Udp_socket& socket() { return *socket_; }

  /// Sends a message to each destination, in segments when it is long, spread over time when there
  /// are many of them. Thread-safe; does not wait:
  /// a destination that cannot be reached now is counted and left out. `header.length` is set here.
  void send(const Header& header, Bytes payload, std::span<const Socket_address> to);

  /// Sends no more than `segments` segments of a message from `offset` of its payload on, or all of
  /// it when it fits into a datagram. Gives the offset that follows: the end also when the rest is
  /// left out because a segment could not be sent.
  std::size_t send_part(const Header& header,
                        Bytes payload,
                        std::size_t offset,
                        std::size_t segments,
                        const Socket_address& to);

  void on_readable() override;

 private:
  /// What a receive left behind.
  struct Harvest {
    Tasks tasks;
    std::optional<Endpoint> malformed_from;
    bool watched = false;  ///< the workers are told of what arrives while the own thread handles it
  };
  class Alarm;
  void receive_in_thread();
  /// The thread waits in the socket, alone, and hands on what has come. False when there
  /// is nothing more to wait for.
  [[nodiscard]] bool receive_one(Buffer& buffer, Harvest& harvest);
  void on_tick();
  /// From now on the workers receive, until the thread is back from its handler. False when it is
  /// in none.
  [[nodiscard]] bool relieve_thread();
  /// How many datagrams there were.
  [[nodiscard]] std::size_t receive_batch(Harvest& harvest);
  void take(const Buffer& buffer,
            std::size_t size,
            const Endpoint& from,
            Arrival arrival,
            Harvest& harvest);
  void report(const Harvest& harvest);
  bool send_datagram(Bytes datagram, const Socket_address& to);

  const std::unique_ptr<Udp_socket> socket_;
  const Endpoint local_;
  Receiver& receiver_;
  Workers& workers_;
  Shared_reassembler& reassembler_;
  Segment_shaper& shaper_;
  Counters& counters_;
  Log& log_;
  static constexpr std::size_t datagrams_per_batch = 8;

  std::mutex receive_mutex_;  ///< keeps the order of datagrams; guards the members below
  bool open_ = false;
  bool workers_receive_ = false;
  int errors_ = 0;                  ///< that the own thread received in a row, if there is one
  std::uint64_t turn_ = 0;          ///< counts its receives
  std::uint64_t turn_at_tick_ = 0;  ///< as the alarm saw it last
  bool ticking_ = false;            ///< the alarm will go off
  int wary_ = 0;                    ///< so many turns more after a slow handler
  /// What the own thread does. It waits in the socket without a lock: nobody else receives then. It
  /// leaves `handling` in one step, which tells it whether the alarm, under the lock, was faster.
  enum class Doing { receiving, handling, handling_relieved };
  std::atomic<Doing> doing_{Doing::receiving};
  std::shared_ptr<Alarm> alarm_;
  std::array<Buffer, datagrams_per_batch> buffers_;  ///< for the next batch
  Workers::Watch watch_{};                           ///< of the socket; set when it is opened
};

}  // namespace someip
