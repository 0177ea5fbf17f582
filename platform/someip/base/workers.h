/// The threads that a node runs on, as the node sees them. Implemented by whoever owns the threads.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

namespace boost::asio {
class io_context;
}

namespace someip {

/// Somebody who reads from a descriptor.
class Readable {
 public:
  virtual ~Readable() = default;
  /// Called on a worker when something has arrived since the descriptor was last found empty, by
  /// several workers at once when it keeps arriving. Must read until the descriptor is empty.
  virtual void on_readable() = 0;
};

/// All members may be called from any thread.
///
/// Two kinds of thread: the workers, which receive datagrams and run handlers, all of them waiting
/// for the same descriptors so that an arrival wakes one of them and no other thread; and one
/// control thread, on which discovery, timers and TCP streams live, without locks because it is one
/// thread.
class Workers {
 public:
  enum class Watch : std::uint64_t {};

  virtual ~Workers() = default;
  [[nodiscard]] virtual boost::asio::io_context& control() = 0;
  /// Runs `work` on a worker.
  virtual void post(std::function<void()> work) = 0;
  /// Calls `reader` for arrivals on `descriptor`. The reader is kept alive while a call runs.
  [[nodiscard]] virtual Watch watch(int descriptor, std::shared_ptr<Readable> reader) = 0;
  /// No new call begins; one may still be running. To be called before the descriptor is closed.
  virtual void unwatch(Watch watch, int descriptor) = 0;

  /// A thread of its own for `work`, which must return by itself before the workers are stopped.
  /// False when there is none to be had.
  // NOLINTNEXTLINE(performance-unnecessary-value-param): those that have threads keep it
  [[nodiscard]] virtual bool start_thread(std::function<void()> work) {
    static_cast<void>(work);
    return false;
  }
};

}  // namespace someip
