/// The threads of a node, as the node sees them. The owner of the threads implements this
/// interface.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

namespace boost::asio {
class io_context;
}

namespace someip {

/// A reader of a descriptor.
class Readable {
 public:
  virtual ~Readable() = default;
  /// Called on a worker when data has arrived since the descriptor was last found empty. Several
  /// workers call it at once if data keeps arriving. Must read until the descriptor is empty.
  virtual void on_readable() = 0;
};

/// Runs the node's handlers and gives it a control thread. Any thread may call all members.
///
/// There are three kinds of thread. The workers receive datagrams and run handlers. All of them
/// wait for the same descriptors; an arrival wakes one of them and no other thread. The
/// control thread runs discovery, timers and TCP streams; they need no locks, because it is one
/// thread. A thread of start_thread() runs one piece of work, such as receiving from one socket.
class Workers {
 public:
  enum class Watch : std::uint64_t {};

  virtual ~Workers() = default;
  [[nodiscard]] virtual boost::asio::io_context& control() = 0;
  /// Runs `work` on a worker.
  virtual void post(std::function<void()> work) = 0;
  /// Calls `reader` for arrivals on `descriptor`. The reader stays alive during a call.
  [[nodiscard]] virtual Watch watch(int descriptor, std::shared_ptr<Readable> reader) = 0;
  /// Begins no new call; one may still be running. Call it before the descriptor is closed.
  virtual void unwatch(Watch watch, int descriptor) = 0;

  /// Starts a thread of its own for `work`, which must return by itself before the workers stop.
  /// Returns false if no thread can be started.
  // NOLINTNEXTLINE(performance-unnecessary-value-param): an implementation with threads keeps it
  [[nodiscard]] virtual bool start_thread(std::function<void()> work) {
    static_cast<void>(work);
    return false;
  }
};

}  // namespace someip
