/// The receiving half of a UDP port: its waiting threads, and the order in which messages are
/// handed on.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/someip/base/counters.h"
#include "platform/someip/base/log.h"
#include "platform/someip/base/task.h"
#include "platform/someip/base/workers.h"
#include "platform/someip/net/received.h"
#include "platform/someip/net/shared_reassembler.h"
#include "platform/someip/net/udp_socket.h"

namespace someip {

/// Receives the messages of a port.
class Message_receiver {
 public:
  virtual ~Message_receiver() = default;
  /// Called in the order of arrival, by one thread at a time. Must not wait: it adds handler calls
  /// to `tasks`.
  virtual void received(Received message, const Endpoint& from, Tasks& tasks) = 0;
};

/// Splits datagrams, reassembles segments and runs the handlers. A thread holds the lock only until
/// it has handed the messages on. It runs the handlers without the lock, so that another thread can
/// receive meanwhile.
class Udp_receiver final : public Readable, public std::enable_shared_from_this<Udp_receiver> {
 public:
  Udp_receiver(std::shared_ptr<Udp_socket> socket,
               Message_receiver& receiver,
               Workers& workers,
               Shared_reassembler& reassembler,
               Counters& counters,
               Log& log);

  /// Lets the workers receive: the socket is one of the many descriptors for which they wait.
  void open();
  /// Starts two threads that wait in the socket side by side; they wake sooner than a worker. The
  /// kernel wakes one of them, which takes the datagram. It runs the handler itself if the other
  /// thread runs none. Otherwise it leaves the handler to a worker, so that one thread always
  /// receives. Does the same as open() if no thread can be started.
  void open_with_threads();
  /// Hands on no message after its return; handlers may still run.
  void close();

  void on_readable() override;

 private:
  /// The work to do after the lock is released.
  struct Harvest {
    Tasks tasks;
    std::optional<Endpoint> malformed_from;
    bool other_receives = false;  ///< the calling thread may run a handler
  };
  static constexpr int threads = 2;

  void receive_in_thread();
  /// Returns false once the receiver is closed.
  [[nodiscard]] bool receive_one(Buffer& buffer, Harvest& harvest);
  /// Returns the number of datagrams.
  [[nodiscard]] std::size_t receive_batch(Harvest& harvest);
  /// `buffer` holds the datagram.
  void take(const Buffer& buffer, const Udp_socket::Arrival& arrival, Harvest& harvest);
  /// Leaves the tasks from `first` on to the workers.
  void post(Tasks& tasks, std::size_t first);
  void report(const Harvest& harvest);

  const std::shared_ptr<Udp_socket> socket_;
  Message_receiver& receiver_;
  Workers& workers_;
  Shared_reassembler& reassembler_;
  Counters& counters_;
  Log& log_;

  /// Own threads that run no handler. Decremented only under the lock, so that it never reaches 0.
  /// Relaxed, because it orders nothing else.
  std::atomic<int> receiving_{0};
  std::mutex mutex_;  ///< keeps the order of datagrams; guards the members below
  bool open_ = false;
  std::optional<Workers::Watch> watch_;                   ///< while the workers receive
  std::array<Buffer, Udp_socket::max_arrivals> buffers_;  ///< for the next batch of a worker
};

}  // namespace someip
